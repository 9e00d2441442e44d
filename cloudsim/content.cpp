#include "content.h"

#include <array>
#include <cstring>

namespace cloudsim {

void TextContent::read(std::uint64_t offset, char *out, std::size_t n) const
{
    std::memcpy(out, m_text.data() + offset, n);
}

std::uint64_t splitmix64(std::uint64_t x)
{
    std::uint64_t z = x + 0x9e3779b97f4a7c15ULL;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

std::uint8_t patternByte(std::uint64_t offset)
{
    return static_cast<std::uint8_t>(splitmix64(offset >> 3) >> ((offset & 7) * 8));
}

void PatternContent::read(std::uint64_t offset, char *out, std::size_t n) const
{
    std::size_t i = 0;
    // Unaligned head, then whole 8-byte words, then the tail.
    while (i < n && ((offset + i) & 7) != 0) {
        out[i] = static_cast<char>(patternByte(offset + i));
        ++i;
    }
    for (; i + 8 <= n; i += 8) {
        std::uint64_t word = splitmix64((offset + i) >> 3);
        for (int b = 0; b < 8; ++b, word >>= 8)
            out[i + static_cast<std::size_t>(b)] = static_cast<char>(word & 0xff);
    }
    for (; i < n; ++i)
        out[i] = static_cast<char>(patternByte(offset + i));
}

std::shared_ptr<const Content> textContent(std::string text)
{
    return std::make_shared<TextContent>(std::move(text));
}

namespace {

std::uint32_t crc32(const std::string &data)
{
    static const auto table = [] {
        std::array<std::uint32_t, 256> t{};
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xedb88320U ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    std::uint32_t c = 0xffffffffU;
    for (unsigned char byte : data)
        c = table[(c ^ byte) & 0xff] ^ (c >> 8);
    return c ^ 0xffffffffU;
}

std::uint32_t adler32(const std::string &data)
{
    std::uint32_t a = 1, b = 0;
    for (unsigned char byte : data) {
        a = (a + byte) % 65521;
        b = (b + a) % 65521;
    }
    return (b << 16) | a;
}

void putU32(std::string &out, std::uint32_t v)
{
    out += static_cast<char>(v >> 24);
    out += static_cast<char>(v >> 16);
    out += static_cast<char>(v >> 8);
    out += static_cast<char>(v);
}

void putChunk(std::string &png, const char *type, const std::string &data)
{
    putU32(png, static_cast<std::uint32_t>(data.size()));
    const std::string typed = type + data;
    png += typed;
    putU32(png, crc32(typed));
}

} // namespace

std::string solidPng(const std::string &seed)
{
    constexpr std::uint32_t side = 16;
    std::uint64_t h = 1469598103934665603ULL; // FNV-1a, stable across runs
    for (unsigned char ch : seed)
        h = (h ^ ch) * 1099511628211ULL;
    const char rgb[3] = {static_cast<char>(h), static_cast<char>(h >> 8), static_cast<char>(h >> 16)};

    std::string raw;
    for (std::uint32_t y = 0; y < side; ++y) {
        raw += '\0'; // filter type "none"
        for (std::uint32_t x = 0; x < side; ++x)
            raw.append(rgb, 3);
    }
    // A zlib stream of one stored (uncompressed) deflate block: no compressor needed.
    std::string zlib = "\x78\x01";
    zlib += '\x01'; // final block, stored
    const auto len = static_cast<std::uint16_t>(raw.size());
    const auto nlen = static_cast<std::uint16_t>(~len);
    zlib += static_cast<char>(len & 0xff);
    zlib += static_cast<char>(len >> 8);
    zlib += static_cast<char>(nlen & 0xff);
    zlib += static_cast<char>(nlen >> 8);
    zlib += raw;
    putU32(zlib, adler32(raw));

    std::string ihdr;
    putU32(ihdr, side);
    putU32(ihdr, side);
    ihdr += '\x08'; // bit depth
    ihdr += '\x02'; // colour type: RGB
    ihdr += std::string(3, '\0'); // deflate, adaptive filtering, no interlace

    std::string png = "\x89PNG\r\n\x1a\n";
    putChunk(png, "IHDR", ihdr);
    putChunk(png, "IDAT", zlib);
    putChunk(png, "IEND", std::string());
    return png;
}

} // namespace cloudsim
