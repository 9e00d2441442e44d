// libFuzzer target for the JSON record mapping. Any input must either read or fail with
// ajson::exception; reading with an explicit length and reading the same bytes NUL-terminated
// must agree; and whatever was read must write out as text that reads back to the same text.

#include "cloudmaterial/protocol/ajson.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzzing {

struct Leaf
{
    std::string text;
    std::int32_t number = 0;
    bool flag = false;
};
AJSON(Leaf, text, number, flag)

// Members of every kind, and a vector of itself so that texts can nest records deeply.
struct Root
{
    std::string text;
    bool flag = false;
    std::int32_t i32 = 0;
    std::int64_t i64 = 0;
    std::uint64_t u64 = 0;
    std::uint32_t u32 = 0;
    std::int16_t i16 = 0;
    std::uint8_t u8 = 0;
    double real = 0.0;
    ajson::text loose;
    Leaf leaf;
    std::vector<Leaf> leaves;
    std::vector<std::string> texts;
    std::vector<std::int64_t> numbers;
    std::vector<std::uint64_t> counts;
    std::vector<double> reals;
    std::vector<bool> flags;
    std::vector<std::vector<std::int32_t>> grid;
    std::vector<Root> children;
};
AJSON(Root, text, flag, i32, i64, u64, u32, i16, u8, real, loose, leaf, leaves, texts, numbers, counts, reals, flags,
      grid, children)

struct Outcome
{
    bool ok = true;
    std::string error;
    std::string written;
};

std::string write(const Root &root)
{
    ajson::string_stream out;
    ajson::save_to(out, root);
    return out.str();
}

Outcome read(const char *text, std::size_t length)
{
    Outcome o;
    Root root;
    try {
        ajson::load_from_buff(root, text, length);
    } catch (const ajson::exception &e) {
        o.ok = false;
        o.error = e.what();
    }
    // What was read before an error is kept, so it must agree as well.
    o.written = write(root);
    return o;
}

// Code points above U+FFFF are written as two \u groups holding their upper and lower 16 bits,
// which read back as two separate characters: the text changes once and then stays. And when
// the lower 16 bits are zero (U+10000, U+20000, ... U+100000), the second group is \u0000,
// which the reader refuses: the one known case where the written text does not read back.
enum class Above { any, planeStart };

bool hasAboveFFFF(const std::string &s, Above which)
{
    for (std::size_t i = 0; i + 3 < s.size(); ++i) {
        const auto b = [&s, i](std::size_t k) { return static_cast<unsigned char>(s[i + k]); };
        if (b(0) < 0xF0 || b(0) > 0xF4)
            continue;
        if ((b(1) & 0xC0) != 0x80 || (b(2) & 0xC0) != 0x80 || (b(3) & 0xC0) != 0x80)
            continue;
        const unsigned cp = (b(0) & 0x07u) << 18 | (b(1) & 0x3Fu) << 12 | (b(2) & 0x3Fu) << 6 | (b(3) & 0x3Fu);
        if (cp >= 0x10000 && cp <= 0x10FFFF && (which == Above::any || (cp & 0xFFFF) == 0))
            return true;
    }
    return false;
}

template<class T>
bool anyString(const T &value, Above which)
{
    if constexpr (std::is_base_of_v<std::string, T>) {
        return hasAboveFFFF(value, which);
    } else if constexpr (ajson::detail::is_vector<T>::value) {
        for (const auto &element : value) {
            if (anyString(static_cast<const typename T::value_type &>(element), which))
                return true;
        }
        return false;
    } else if constexpr (ajson::detail::is_record<T>::value) {
        bool found = false;
        ajson_for_each_member(
            value, [&found, which](std::size_t, const auto &member) { found = found || anyString(member, which); });
        return found;
    } else {
        return false;
    }
}

// The same text with a blank after every `{`, `,` and `:` outside strings: the reader takes
// its general way for it instead of matching compact keys as raw bytes.
std::string spacedOut(const std::string &compact)
{
    std::string out;
    bool inString = false;
    for (std::size_t i = 0; i < compact.size(); ++i) {
        const char c = compact[i];
        out.push_back(c);
        if (inString) {
            if (c == '\\' && i + 1 < compact.size())
                out.push_back(compact[++i]);
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == ',' || c == ':') {
            out.push_back(' ');
        }
    }
    return out;
}

[[noreturn]] void fail(const char *what, const std::string &a, const std::string &b)
{
    std::fprintf(stderr, "fuzz_ajson: %s\n  first:  %s\n  second: %s\n", what, a.c_str(), b.c_str());
    std::abort();
}

} // namespace fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace fuzzing;
    // A length of 0 means "up to the NUL", so an empty input is passed as an empty string.
    const char *text = size ? reinterpret_cast<const char *>(data) : "";
    const Outcome bounded = read(text, size);

    const std::string copy(text, size);
    const Outcome terminated = read(copy.c_str(), 0);
    if (bounded.ok != terminated.ok || bounded.error != terminated.error)
        fail("explicit length and NUL termination disagree", bounded.error, terminated.error);
    if (bounded.written != terminated.written)
        fail("explicit length and NUL termination read different records", bounded.written, terminated.written);

    // Whatever was read writes out as a text that reads back; from the second writing on the
    // text no longer changes.
    Root root;
    try {
        ajson::load_from_buff(root, text, size);
    } catch (const ajson::exception &) {
    }
    const std::string first = write(root);
    Root again;
    try {
        ajson::load_from_buff(again, first.data(), first.size());
    } catch (const ajson::exception &e) {
        if (anyString(root, Above::planeStart))
            return 0;
        fail("written text does not read back", first, e.what());
    }
    const std::string second = write(again);
    if (first != second && !anyString(root, Above::any))
        fail("written text reads back differently", first, second);
    const std::string spaced = spacedOut(first);
    Root general;
    try {
        ajson::load_from_buff(general, spaced.data(), spaced.size());
    } catch (const ajson::exception &e) {
        fail("spaced-out text does not read back", spaced, e.what());
    }
    if (write(general) != second)
        fail("spaced-out text reads back differently", second, write(general));
    Root third;
    try {
        ajson::load_from_buff(third, second.data(), second.size());
    } catch (const ajson::exception &e) {
        fail("second written text does not read back", second, e.what());
    }
    if (write(third) != second)
        fail("second written text reads back differently", second, write(third));
    return 0;
}
