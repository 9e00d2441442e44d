#pragma once

#include <QByteArray>

#include <cstdint>

// The bytes cloudsim generates for a file of a given size: byte i is byte (i mod 8),
// least significant first, of splitmix64(i / 8). Written out here independently of the
// server's code, so that a mistake on either side shows.
inline std::uint64_t generatedWord(std::uint64_t x)
{
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

inline QByteArray generatedContent(std::uint64_t offset, int size)
{
    QByteArray out(size, Qt::Uninitialized);
    std::uint64_t word = generatedWord(offset / 8);
    for (int i = 0; i < size; ++i) {
        const std::uint64_t at = offset + std::uint64_t(i);
        if (at % 8 == 0)
            word = generatedWord(at / 8);
        out[i] = char(word >> (8 * (at % 8)));
    }
    return out;
}
