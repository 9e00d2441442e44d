// ajson: maps JSON objects straight onto plain records and back, without a document tree.
//
// A record is an ordinary struct whose JSON shape is declared once, next to it:
//
//     struct ConfigJson { bool isRecordUsername = false; std::string username; };
//     AJSON(ConfigJson, isRecordUsername, username)
//
// The declaration goes at namespace scope in the struct's own namespace (it is found by
// argument-dependent lookup). The JSON key of a member is its name as written in the list.
//
// The reader is lenient where the cloud and our own files need it: commas between members are
// optional, a trailing comma is accepted, // and /* */ comments count as blanks, bare words stand
// for strings and numbers may arrive quoted. It is strict where mistakes would go unnoticed: the
// top level must be an object and array elements need their commas.
//
// Error positions: the line counts LF bytes, the column counts every byte since the last LF
// except CR, both from 0. They describe the reader after the offending token has been consumed;
// when the tokenizer itself rejects a byte (an unterminated string, a malformed number) that
// byte is not consumed.
#pragma once

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <fstream>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>
#define AJSON_DETAIL_SSE2 1
#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>
#endif
#endif

#if defined(__GNUC__) || defined(__clang__)
#define AJSON_DETAIL_LIKELY(x) __builtin_expect(!!(x), 1)
#define AJSON_DETAIL_UNLIKELY(x) __builtin_expect(!!(x), 0)
#define AJSON_DETAIL_NOINLINE __attribute__((noinline, cold))
#else
#define AJSON_DETAIL_LIKELY(x) (x)
#define AJSON_DETAIL_UNLIKELY(x) (x)
#define AJSON_DETAIL_NOINLINE
#endif

namespace ajson {

// Thrown for every syntax or conversion error; what() carries the position and the reason.
class exception : public std::exception
{
public:
    explicit exception(std::string message)
        : m_message(std::move(message))
    {
    }
    const char *what() const noexcept override { return m_message.c_str(); }

private:
    std::string m_message;
};

// The buffer that save_to() fills; the module builds HTTP and MQTT bodies with it.
class string_stream
{
public:
    void write(const char *data, std::size_t length) { m_buffer.append(data, length); }
    void put(char c) { m_buffer.push_back(c); }
    void reserve(std::size_t capacity) { m_buffer.reserve(capacity); }
    void clear() { m_buffer.clear(); }
    const std::string &str() const { return m_buffer; }
    std::string &str() { return m_buffer; }

private:
    std::string m_buffer;
};

// A string member for the fields that the cloud sends as a number one day and as a string the
// next: a number is kept as the text it was written with, a string as its unescaped text. It
// is written back as a string.
class text : public std::string
{
public:
    using std::string::string;
    using std::string::operator=;
    text() = default;
    text(const std::string &other)
        : std::string(other)
    {
    }
    text(std::string &&other) noexcept
        : std::string(std::move(other))
    {
    }
};

namespace detail {

// Deeper nesting than this is refused: a hostile text must not exhaust the stack.
inline constexpr int max_depth = 1000;

struct name_entry
{
    const char *str;
    std::size_t length;
};

// How many name tables have been built in this process; each record type builds one, once.
inline std::atomic<unsigned> &name_tables_built()
{
    static std::atomic<unsigned> count{0};
    return count;
}

// The member names of one record type, split out of its field-list string. Entries point into
// the string literal itself, so nothing is copied but the quoted keys that the writer emits.
class name_table
{
public:
    name_table(const char *list, std::size_t expected)
    {
        const char *p = list;
        for (;;) {
            const char *stop = std::strchr(p, ',');
            const char *last = stop ? stop : p + std::strlen(p);
            const char *first = p;
            while (first < last && is_blank(*first))
                ++first;
            while (last > first && is_blank(last[-1]))
                --last;
            m_names.push_back({first, static_cast<std::size_t>(last - first)});
            if (!stop)
                break;
            p = stop + 1;
        }
        // A list that does not match the member count would bind names to the wrong members.
        if (m_names.size() != expected)
            throw std::logic_error(std::string("ajson: malformed field list: ") + list);
        for (const name_entry &name : m_names) {
            m_keyOffsets.push_back(m_keys.size());
            m_keys.append(",\"", 2);
            m_keys.append(name.str, name.length);
            m_keys.append("\":", 2);
        }
        m_keyOffsets.push_back(m_keys.size());
        name_tables_built().fetch_add(1, std::memory_order_relaxed);
    }

    std::size_t size() const { return m_names.size(); }
    const name_entry &operator[](std::size_t i) const { return m_names[i]; }

    // Index of the member called key, or size() when there is none. The scan starts at hint
    // because keys usually arrive in declaration order, and wraps around once.
    std::size_t find(const char *key, std::size_t length, std::size_t hint) const
    {
        const std::size_t n = m_names.size();
        for (std::size_t k = 0, i = hint < n ? hint : 0; k < n; ++k) {
            const name_entry &e = m_names[i];
            if (e.length == length && same_bytes(e.str, key, length))
                return i;
            if (++i == n)
                i = 0;
        }
        return n;
    }

    // `,"name":` for member i; the first member is written without its comma.
    const char *key_text(std::size_t i) const { return m_keys.data() + m_keyOffsets[i]; }
    std::size_t key_length(std::size_t i) const { return m_keyOffsets[i + 1] - m_keyOffsets[i]; }

private:
    // Keys are short: comparing in place beats a call to memcmp.
    static bool same_bytes(const char *a, const char *b, std::size_t n)
    {
        for (; n >= 8; a += 8, b += 8, n -= 8) {
            std::uint64_t x;
            std::uint64_t y;
            std::memcpy(&x, a, 8);
            std::memcpy(&y, b, 8);
            if (x != y)
                return false;
        }
        for (; n > 0; ++a, ++b, --n) {
            if (*a != *b)
                return false;
        }
        return true;
    }

    static bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

    std::vector<name_entry> m_names;
    std::string m_keys;
    std::vector<std::size_t> m_keyOffsets;
};

// Non-records pick this overload, which makes is_record false.
void ajson_name_table(...) = delete;

template<class T, class = void>
struct is_record : std::false_type
{
};
template<class T>
struct is_record<T, std::void_t<decltype(ajson_name_table(static_cast<const T *>(nullptr)))>> : std::true_type
{
};

template<class T>
struct is_vector : std::false_type
{
};
template<class T, class A>
struct is_vector<std::vector<T, A>> : std::true_type
{
};

template<class T>
inline constexpr bool unsupported_type = false;

enum char_class : std::uint8_t {
    cc_blank = 1, // TAB LF CR SPACE
    cc_punct = 2, // { } [ ] : ,
    cc_digit = 4,
    cc_quote_stop = 8, // bytes that interrupt the scan of a quoted string: " \ LF
    cc_escape = 16, // bytes the writer cannot copy as they are
};

constexpr std::uint8_t classify(unsigned c)
{
    std::uint8_t k = 0;
    if (c == 9 || c == 10 || c == 13 || c == 32)
        k |= cc_blank;
    if (c == '{' || c == '}' || c == '[' || c == ']' || c == ':' || c == ',')
        k |= cc_punct;
    if (c >= '0' && c <= '9')
        k |= cc_digit;
    if (c == '"' || c == '\\' || c == '\n')
        k |= cc_quote_stop;
    if (c < 32 || c > 126 || c == '"' || c == '\\')
        k |= cc_escape;
    return k;
}

struct char_table
{
    std::uint8_t bits[256];
    constexpr char_table()
        : bits()
    {
        for (unsigned c = 0; c < 256; ++c)
            bits[c] = classify(c);
    }
};

inline constexpr char_table chars{};

inline std::uint8_t char_bits(char c)
{
    return chars.bits[static_cast<unsigned char>(c)];
}

enum class token_type : std::uint8_t { string, word, integer, real, punct, end };

struct token
{
    token_type type = token_type::end;
    bool negative = false; // the number had a leading '-'
    bool escaped = false; // a string or word holds a backslash
    const char *str = nullptr;
    std::size_t length = 0;
    std::uint64_t magnitude = 0; // integers: the digits, sign kept apart in `negative`
    double value = 0.0; // floating numbers, sign included
};

// Decimal magnitude of a floating token that does not fit a double, to tell overflow from
// underflow: the position of its first significant digit plus the exponent.
inline std::int64_t decimal_magnitude(const char *p, const char *end)
{
    if (p != end && (*p == '-' || *p == '+'))
        ++p;
    std::int64_t integerDigits = 0;
    std::int64_t fractionZeros = 0;
    bool seen = false;
    bool fraction = false;
    for (; p != end && (char_bits(*p) & cc_digit || *p == '.'); ++p) {
        if (*p == '.') {
            fraction = true;
        } else if (seen || *p != '0') {
            seen = true;
            if (!fraction)
                ++integerDigits;
        } else if (fraction) {
            ++fractionZeros;
        }
    }
    if (!seen)
        return 0;
    std::int64_t exponent = 0;
    if (p != end && (*p == 'e' || *p == 'E')) {
        ++p;
        const bool negative = p != end && *p == '-';
        if (p != end && (*p == '-' || *p == '+'))
            ++p;
        for (; p != end && char_bits(*p) & cc_digit; ++p)
            exponent = std::min<std::int64_t>(exponent * 10 + (*p - '0'), std::int64_t(1) << 40);
        if (negative)
            exponent = -exponent;
    }
    return (integerDigits > 0 ? integerDigits - 1 : -(fractionZeros + 1)) + exponent;
}

// The text of a floating token as a correctly rounded double. from_chars is independent of
// the C locale, which Qt applications set from the environment.
inline double to_double(const char *first, const char *last, bool negative)
{
    double d = 0.0;
    const std::from_chars_result r = std::from_chars(first, last, d);
    if (r.ec == std::errc())
        return d;
    if (r.ec == std::errc::result_out_of_range) {
        const double huge = decimal_magnitude(first, last) > 0 ? HUGE_VAL : 0.0;
        return negative ? -huge : huge;
    }
    // No digits at all, as in "-." or "-e5": the value is zero.
    return negative ? -0.0 : 0.0;
}

class reader
{
public:
    reader(const char *input, std::size_t length)
    {
        if (!input) {
            m_begin = m_cur = m_end = "";
            return;
        }
        m_begin = m_cur = input;
        // A NUL byte ends the text in both forms, so the scanners only watch m_end.
        if (length == 0) {
            m_end = input + std::strlen(input);
        } else {
            const void *nul = std::memchr(input, 0, length);
            m_end = nul ? static_cast<const char *>(nul) : input + length;
        }
    }

    const token &current() const { return m_tok; }
    bool is_punct(char c) const { return m_tok.type == token_type::punct && *m_tok.str == c; }

    void enter()
    {
        if (AJSON_DETAIL_UNLIKELY(++m_depth > max_depth))
            error("invalid json document!");
    }
    void leave() { --m_depth; }

    // Consumes `bytes` when the text continues with exactly them.
    bool consume(const char *bytes, std::size_t n)
    {
        if (static_cast<std::size_t>(m_end - m_cur) < n || std::memcmp(m_cur, bytes, n) != 0)
            return false;
        m_cur += n;
        return true;
    }

    void next()
    {
        skip_blanks();
        token &t = m_tok;
        if (AJSON_DETAIL_UNLIKELY(m_cur == m_end)) {
            t.type = token_type::end;
            t.str = m_cur;
            t.length = 0;
            return;
        }
        const char c = *m_cur;
        if (c == '"') {
            scan_string();
        } else if (char_bits(c) & cc_punct) {
            t.type = token_type::punct;
            t.str = m_cur++;
            t.length = 1;
        } else if (char_bits(c) & cc_digit || c == '-') {
            scan_number();
        } else {
            scan_word();
        }
    }

    // Composes the message from the reader's position; line and column are only counted
    // here, so reading never pays for them.
    [[noreturn]] AJSON_DETAIL_NOINLINE void error(const char *message) const
    {
        std::size_t line = 0;
        std::size_t column = 0;
        for (const char *p = m_begin; p != m_cur; ++p) {
            if (*p == '\n') {
                ++line;
                column = 0;
            } else if (*p != '\r') {
                ++column;
            }
        }
        std::string composed = "error at line :";
        composed += std::to_string(line);
        composed += " col :";
        composed += std::to_string(column);
        composed += " msg:";
        composed += message;
        throw exception(std::move(composed));
    }

private:
    void skip_blanks()
    {
        for (;;) {
            while (m_cur != m_end && char_bits(*m_cur) & cc_blank)
                ++m_cur;
            if (m_cur == m_end || *m_cur != '/')
                return;
            skip_comment();
        }
    }

    AJSON_DETAIL_NOINLINE void skip_comment()
    {
        ++m_cur;
        if (m_cur == m_end)
            error("not a comment!");
        if (*m_cur == '/') {
            const void *lf = std::memchr(m_cur, '\n', static_cast<std::size_t>(m_end - m_cur));
            m_cur = lf ? static_cast<const char *>(lf) : m_end;
        } else if (*m_cur == '*') {
            ++m_cur;
            for (;;) {
                const void *star = std::memchr(m_cur, '*', static_cast<std::size_t>(m_end - m_cur));
                if (!star) {
                    // An unterminated block comment runs to the end of the text.
                    m_cur = m_end;
                    return;
                }
                m_cur = static_cast<const char *>(star) + 1;
                if (m_cur != m_end && *m_cur == '/') {
                    ++m_cur;
                    return;
                }
            }
        } else {
            error("not a comment!");
        }
    }

    // First byte at or after p that interrupts a quoted string, or m_end. Strings (mostly
    // URLs) are the bulk of the cloud's replies, so this looks at 16 bytes at a time.
    const char *find_quote_stop(const char *p) const
    {
#ifdef AJSON_DETAIL_SSE2
        const __m128i quote = _mm_set1_epi8('"');
        const __m128i backslash = _mm_set1_epi8('\\');
        const __m128i lf = _mm_set1_epi8('\n');
        while (m_end - p >= 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
            const __m128i hits = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)),
                                              _mm_cmpeq_epi8(v, lf));
            const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(hits));
            if (mask != 0) {
#if defined(_MSC_VER) && !defined(__clang__)
                unsigned long index;
                _BitScanForward(&index, mask);
                return p + index;
#else
                return p + __builtin_ctz(mask);
#endif
            }
            p += 16;
        }
#endif
        while (p != m_end && !(char_bits(*p) & cc_quote_stop))
            ++p;
        return p;
    }

    void scan_string()
    {
        token &t = m_tok;
        const char *p = ++m_cur;
        bool escaped = false;
        for (;;) {
            p = find_quote_stop(p);
            if (AJSON_DETAIL_UNLIKELY(p == m_end))
                break;
            if (*p == '"') {
                t.type = token_type::string;
                t.escaped = escaped;
                t.str = m_cur;
                t.length = static_cast<std::size_t>(p - m_cur);
                m_cur = p + 1;
                return;
            }
            if (*p == '\n')
                break;
            // A backslash takes the next byte into the string, whatever it is.
            escaped = true;
            if (++p == m_end)
                break;
            ++p;
        }
        m_cur = p;
        error("not a valid quote string!");
    }

    void scan_number()
    {
        token &t = m_tok;
        const char *first = m_cur;
        const char *p = m_cur;
        const bool negative = *p == '-';
        if (negative)
            ++p;
        std::uint64_t magnitude = 0;
        // Wraps past 2^64 without notice; a double member reads long integers from the text.
        while (p != m_end && char_bits(*p) & cc_digit)
            magnitude = magnitude * 10 + static_cast<unsigned>(*p++ - '0');
        bool real = false;
        if (p != m_end && *p == '.') {
            real = true;
            ++p;
            while (p != m_end && char_bits(*p) & cc_digit)
                ++p;
            if (p != m_end && *p == '.') {
                m_cur = p;
                error("not a valid number!");
            }
        }
        if (p != m_end && (*p == 'e' || *p == 'E')) {
            real = true;
            ++p;
            if (p != m_end && (*p == '+' || *p == '-'))
                ++p;
            if (p == m_end || !(char_bits(*p) & cc_digit)) {
                m_cur = p;
                error("not a valid number!");
            }
            while (p != m_end && char_bits(*p) & cc_digit)
                ++p;
            if (p != m_end && *p == '.') {
                m_cur = p;
                error("not a valid number!");
            }
        }
        t.type = real ? token_type::real : token_type::integer;
        t.negative = negative;
        t.str = first;
        t.length = static_cast<std::size_t>(p - first);
        t.magnitude = magnitude;
        if (real)
            t.value = to_double(first, p, negative);
        m_cur = p;
    }

    void scan_word()
    {
        token &t = m_tok;
        const char *p = m_cur;
        while (p != m_end && !(char_bits(*p) & (cc_blank | cc_punct)))
            ++p;
        t.type = token_type::word;
        t.str = m_cur;
        t.length = static_cast<std::size_t>(p - m_cur);
        t.escaped = std::memchr(m_cur, '\\', t.length) != nullptr;
        m_cur = p;
    }

    const char *m_begin = nullptr;
    const char *m_cur = nullptr;
    const char *m_end = nullptr;
    int m_depth = 0;
    token m_tok;
};

// ---------------------------------------------------------------------------------------------
// Conversions from the current token

inline bool is_text(const token &t)
{
    return t.type == token_type::string || t.type == token_type::word;
}

// "true" in any letter case; the cloud is not consistent about it.
inline bool spells_true(const token &t)
{
    return t.length == 4 && (t.str[0] | 0x20) == 't' && (t.str[1] | 0x20) == 'r' && (t.str[2] | 0x20) == 'u'
        && (t.str[3] | 0x20) == 'e';
}

inline bool is_c_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Base-10 strtoll/strtoull over a token that is not NUL-terminated: leading blanks, an optional
// sign, digits; non-numeric text gives 0, overflow saturates, and the unsigned form negates
// modulo 2^64 like strtoull does.
inline std::int64_t text_to_int64(const char *p, const char *end)
{
    while (p != end && is_c_space(*p))
        ++p;
    bool negative = false;
    if (p != end && (*p == '+' || *p == '-'))
        negative = *p++ == '-';
    const std::uint64_t limit = negative ? std::uint64_t(1) << 63 : (std::uint64_t(1) << 63) - 1;
    std::uint64_t v = 0;
    bool overflow = false;
    for (; p != end && char_bits(*p) & cc_digit; ++p) {
        const unsigned digit = static_cast<unsigned>(*p - '0');
        if (v > (limit - digit) / 10)
            overflow = true;
        else
            v = v * 10 + digit;
    }
    if (overflow)
        return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    return negative ? static_cast<std::int64_t>(0 - v) : static_cast<std::int64_t>(v);
}

inline std::uint64_t text_to_uint64(const char *p, const char *end)
{
    while (p != end && is_c_space(*p))
        ++p;
    bool negative = false;
    if (p != end && (*p == '+' || *p == '-'))
        negative = *p++ == '-';
    const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t v = 0;
    bool overflow = false;
    for (; p != end && char_bits(*p) & cc_digit; ++p) {
        const unsigned digit = static_cast<unsigned>(*p - '0');
        if (v > (max - digit) / 10)
            overflow = true;
        else
            v = v * 10 + digit;
    }
    if (overflow)
        return max;
    return negative ? 0 - v : v;
}

inline double text_to_double(const char *p, const char *end)
{
    while (p != end && is_c_space(*p))
        ++p;
    if (p != end && *p == '+')
        ++p;
    double d = 0.0;
    const std::from_chars_result r = std::from_chars(p, end, d);
    if (r.ec == std::errc())
        return d;
    if (r.ec == std::errc::result_out_of_range) {
        const bool negative = *p == '-';
        const double huge = decimal_magnitude(p, end) > 0 ? HUGE_VAL : 0.0;
        return negative ? -huge : huge;
    }
    return 0.0;
}

// Clamps instead of overflowing: converting an out-of-range double is undefined.
inline std::int64_t double_to_int64(double d)
{
    if (!(d == d))
        return 0;
    if (d >= 9223372036854775808.0)
        return std::numeric_limits<std::int64_t>::max();
    if (d <= -9223372036854775808.0)
        return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(d);
}

inline std::uint64_t double_to_uint64(double d)
{
    if (!(d == d) || d <= 0.0)
        return 0;
    if (d >= 18446744073709551616.0)
        return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(d);
}

inline int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Resolves the escapes of a string token. Returns false for an escape that is not one.
inline bool unescape(const char *p, const char *end, std::string &out)
{
    out.reserve(static_cast<std::size_t>(end - p));
    while (p != end) {
        const char *run = p;
        while (p != end && *p != '\\')
            ++p;
        out.append(run, static_cast<std::size_t>(p - run));
        if (p == end)
            break;
        if (++p == end)
            return false;
        switch (*p++) {
        case '"':
            out.push_back('"');
            break;
        case '/':
            out.push_back('/');
            break;
        case '\\':
            out.push_back('\\');
            break;
        case 'b':
            out.push_back('\b');
            break;
        case 'f':
            out.push_back('\f');
            break;
        case 'n':
            out.push_back('\n');
            break;
        case 'r':
            out.push_back('\r');
            break;
        case 't':
            out.push_back('\t');
            break;
        case 'u': {
            if (end - p < 4)
                return false;
            unsigned cp = 0;
            for (int i = 0; i < 4; ++i) {
                const int h = hex_digit(p[i]);
                if (h < 0)
                    return false;
                cp = cp << 4 | static_cast<unsigned>(h);
            }
            p += 4;
            // A NUL would cut the text short wherever it is used next.
            if (cp == 0)
                return false;
            // Surrogate halves are encoded one by one; the cloud does not send pairs.
            if (cp < 0x80) {
                out.push_back(static_cast<char>(cp));
            } else if (cp < 0x800) {
                out.push_back(static_cast<char>(0xC0 | cp >> 6));
                out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
            } else {
                out.push_back(static_cast<char>(0xE0 | cp >> 12));
                out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
                out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
            }
            break;
        }
        default:
            return false;
        }
    }
    return true;
}

template<class T>
void read_value(reader &r, T &v);

inline void read_string(reader &r, std::string &v)
{
    const token &t = r.current();
    if (AJSON_DETAIL_UNLIKELY(!is_text(t)))
        r.error("not a valid string.");
    if (AJSON_DETAIL_LIKELY(!t.escaped)) {
        v.assign(t.str, t.length);
        return;
    }
    // Decoded aside, so that a failure leaves the member as it was.
    std::string decoded;
    if (!unescape(t.str, t.str + t.length, decoded))
        r.error("not a valid string.");
    v = std::move(decoded);
}

inline void read_text(reader &r, text &v)
{
    const token &t = r.current();
    if (t.type == token_type::integer || t.type == token_type::real)
        v.assign(t.str, t.length);
    else
        read_string(r, v);
}

inline bool read_bool(reader &r)
{
    const token &t = r.current();
    switch (t.type) {
    case token_type::string:
    case token_type::word:
        return spells_true(t);
    case token_type::integer:
        return t.magnitude != 0;
    case token_type::real:
        return t.value != 0.0; // NaN counts as true
    default:
        r.error("not a valid bool.");
    }
}

inline std::int64_t read_signed(reader &r)
{
    const token &t = r.current();
    switch (t.type) {
    case token_type::string:
    case token_type::word:
        return spells_true(t) ? 1 : text_to_int64(t.str, t.str + t.length);
    case token_type::integer:
        return static_cast<std::int64_t>(t.negative ? 0 - t.magnitude : t.magnitude);
    case token_type::real:
        return double_to_int64(t.value); // truncates toward zero
    default:
        r.error("not a valid signed integral like number.");
    }
}

inline std::uint64_t read_unsigned(reader &r)
{
    const token &t = r.current();
    switch (t.type) {
    case token_type::string:
    case token_type::word:
        return spells_true(t) ? 1 : text_to_uint64(t.str, t.str + t.length);
    case token_type::integer:
        if (t.negative)
            r.error("assign a negative signed integral to unsigned integral number.");
        return t.magnitude;
    case token_type::real:
        if (t.negative)
            r.error("assign a negative float point to unsigned integral number.");
        return double_to_uint64(t.value);
    default:
        r.error("not a valid unsigned integral like number.");
    }
}

inline double read_double(reader &r)
{
    const token &t = r.current();
    switch (t.type) {
    case token_type::string:
    case token_type::word:
        return spells_true(t) ? 1.0 : text_to_double(t.str, t.str + t.length);
    case token_type::integer: {
        // Twenty digits and more may have wrapped in 64 bits; the writer itself produces such
        // integers for large doubles.
        if (t.length - (t.negative ? 1 : 0) >= 20)
            return to_double(t.str, t.str + t.length, t.negative);
        const double d = static_cast<double>(t.magnitude);
        return t.negative ? -d : d;
    }
    case token_type::real:
        return t.value;
    default:
        r.error("not a valid float point number.");
    }
}

// Skips the value that starts at the current token, by the same grammar that reading uses.
inline void skip_value(reader &r)
{
    const token &t = r.current();
    if (t.type != token_type::punct) {
        if (t.type == token_type::end)
            r.error("invalid json document!");
        return;
    }
    if (*t.str == '[') {
        r.enter();
        r.next();
        if (!r.is_punct(']')) {
            for (;;) {
                skip_value(r);
                r.next();
                if (r.is_punct(',')) {
                    r.next();
                    if (r.is_punct(']'))
                        break;
                } else if (r.is_punct(']')) {
                    break;
                } else {
                    r.error("no valid array!");
                }
            }
        }
        r.leave();
    } else if (*t.str == '{') {
        r.enter();
        r.next();
        while (!r.is_punct('}')) {
            if (r.current().type != token_type::string)
                r.error("object key must be string");
            r.next();
            if (!r.is_punct(':'))
                r.error("invalid json document!");
            r.next();
            skip_value(r);
            r.next();
            if (r.is_punct(','))
                r.next();
        }
        r.leave();
    } else {
        r.error("invalid json document!");
    }
}

// Reads the members of an object whose `{` is the current token.
template<class T>
void read_members(reader &r, T &record)
{
    const name_table &names = ajson_name_table(static_cast<const T *>(nullptr));
    const std::size_t count = names.size();
    r.enter();
    std::size_t hint = 0;
    bool first = true;
    for (;;) {
        std::size_t index = count;
        // Our own texts and the cloud's are compact with the keys in declaration order: the
        // expected `,"name":` is matched as raw bytes instead of as three tokens. Anything else
        // (blanks, comments, other keys, a missing comma) takes the general way below.
        const std::size_t skip = first ? 1 : 0;
        if (hint < count && r.consume(names.key_text(hint) + skip, names.key_length(hint) - skip)) {
            index = hint;
        } else {
            r.next();
            // Commas between members are optional, and one may stand before the `}`.
            if (!first && r.is_punct(','))
                r.next();
            if (r.is_punct('}'))
                break;
            const token &key = r.current();
            if (AJSON_DETAIL_UNLIKELY(key.type != token_type::string))
                r.error("object key must be string");
            index = names.find(key.str, key.length, hint);
            r.next();
            if (AJSON_DETAIL_UNLIKELY(!r.is_punct(':')))
                r.error("invalid json document!");
        }
        first = false;
        r.next();
        if (index < count) {
            ajson_member_at(record, index, [&r](auto &member) { read_value(r, member); });
            hint = index + 1;
        } else {
            skip_value(r);
        }
    }
    r.leave();
}

template<class V>
void read_vector(reader &r, V &v)
{
    if (!r.is_punct('[')) {
        // `null` leaves the vector as it was.
        const token &t = r.current();
        if (t.length >= 4 && std::memcmp(t.str, "null", 4) == 0)
            return;
        r.error("array must start with [.");
    }
    r.enter();
    // An array replaces what the vector held, as any other value replaces its member.
    v.clear();
    r.next();
    if (!r.is_punct(']')) {
        for (;;) {
            if constexpr (std::is_same_v<typename V::value_type, bool>) {
                bool element = false;
                read_value(r, element);
                v.push_back(element);
            } else {
                read_value(r, v.emplace_back());
            }
            r.next();
            if (r.is_punct(',')) {
                r.next();
                if (r.is_punct(']'))
                    break;
            } else if (r.is_punct(']')) {
                break;
            } else {
                r.error("no valid array!");
            }
        }
    }
    r.leave();
}

// Reads the value that starts at the current token into v.
template<class T>
void read_value(reader &r, T &v)
{
    if constexpr (std::is_same_v<T, std::string>) {
        read_string(r, v);
    } else if constexpr (std::is_same_v<T, text>) {
        read_text(r, v);
    } else if constexpr (std::is_same_v<T, bool>) {
        v = read_bool(r);
    } else if constexpr (std::is_enum_v<T>) {
        std::underlying_type_t<T> raw{};
        read_value(r, raw);
        v = static_cast<T>(raw);
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        v = static_cast<T>(read_signed(r));
    } else if constexpr (std::is_integral_v<T>) {
        v = static_cast<T>(read_unsigned(r));
    } else if constexpr (std::is_floating_point_v<T>) {
        v = static_cast<T>(read_double(r));
    } else if constexpr (is_vector<T>::value) {
        read_vector(r, v);
    } else if constexpr (is_record<T>::value) {
        if (!r.is_punct('{'))
            r.error("read object must start with {!");
        read_members(r, v);
    } else {
        static_assert(unsupported_type<T>, "ajson: member type not supported");
    }
}

// ---------------------------------------------------------------------------------------------
// Writing

inline constexpr char hex_upper[] = "0123456789ABCDEF";

template<class S>
void write_u_escape(S &s, unsigned unit)
{
    const char buf[6] = {'\\',
                         'u',
                         hex_upper[unit >> 12 & 0xF],
                         hex_upper[unit >> 8 & 0xF],
                         hex_upper[unit >> 4 & 0xF],
                         hex_upper[unit & 0xF]};
    s.write(buf, 6);
}

// Length of the well-formed UTF-8 sequence at p (2 to 4 bytes) and its code point, or 0.
// Encoded surrogate halves are accepted because the reader produces them from \uD8xx.
inline std::size_t decode_utf8(const unsigned char *p, const unsigned char *end, unsigned &cp)
{
    const unsigned b0 = p[0];
    const std::size_t avail = static_cast<std::size_t>(end - p);
    auto cont = [](unsigned b) { return (b & 0xC0) == 0x80; };
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        if (avail < 2 || !cont(p[1]))
            return 0;
        cp = (b0 & 0x1F) << 6 | (p[1] & 0x3F);
        return 2;
    }
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (avail < 3 || !cont(p[1]) || !cont(p[2]) || (b0 == 0xE0 && p[1] < 0xA0))
            return 0;
        cp = (b0 & 0x0F) << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3F);
        return 3;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (avail < 4 || !cont(p[1]) || !cont(p[2]) || !cont(p[3]) || (b0 == 0xF0 && p[1] < 0x90)
            || (b0 == 0xF4 && p[1] > 0x8F))
            return 0;
        cp = (b0 & 0x07) << 18 | (p[1] & 0x3Fu) << 12 | (p[2] & 0x3Fu) << 6 | (p[3] & 0x3F);
        return 4;
    }
    return 0;
}

template<class S>
void write_string(S &s, const std::string &v)
{
    s.put('"');
    const char *p = v.data();
    const char *end = p + v.size();
    for (;;) {
        const char *run = p;
        while (p != end && !(char_bits(*p) & cc_escape))
            ++p;
        if (p != run)
            s.write(run, static_cast<std::size_t>(p - run));
        if (p == end)
            break;
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == 0)
            break; // the text ends at its first NUL
        char pair = 0;
        switch (c) {
        case '"':
            pair = '"';
            break;
        case '\\':
            pair = '\\';
            break;
        case '\b':
            pair = 'b';
            break;
        case '\t':
            pair = 't';
            break;
        case '\n':
            pair = 'n';
            break;
        case '\f':
            pair = 'f';
            break;
        case '\r':
            pair = 'r';
            break;
        default:
            break;
        }
        if (pair) {
            const char buf[2] = {'\\', pair};
            s.write(buf, 2);
            ++p;
            continue;
        }
        unsigned cp = c;
        std::size_t n = 1;
        if (c >= 0x80) {
            n = decode_utf8(reinterpret_cast<const unsigned char *>(p), reinterpret_cast<const unsigned char *>(end),
                            cp);
            // A byte that starts no valid sequence stands for itself.
            if (n == 0) {
                n = 1;
                cp = c;
            }
        }
        p += n;
        // Above U+FFFF: the upper and the lower 16 bits, each as its own group.
        if (cp > 0xFFFF)
            write_u_escape(s, cp >> 16);
        write_u_escape(s, cp & 0xFFFF);
    }
    s.put('"');
}

template<class S, class T>
void write_value(S &s, const T &v);

template<class S, class T>
void write_record(S &s, const T &record)
{
    const name_table &names = ajson_name_table(static_cast<const T *>(nullptr));
    s.put('{');
    ajson_for_each_member(record, [&s, &names](std::size_t i, const auto &member) {
        // Every key text starts with a comma, which the first member leaves out.
        const std::size_t skip = i == 0 ? 1 : 0;
        s.write(names.key_text(i) + skip, names.key_length(i) - skip);
        write_value(s, member);
    });
    s.put('}');
}

template<class S, class T>
void write_value(S &s, const T &v)
{
    if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, text>) {
        write_string(s, v);
    } else if constexpr (std::is_same_v<T, bool>) {
        if (v)
            s.write("true", 4);
        else
            s.write("false", 5);
    } else if constexpr (std::is_enum_v<T>) {
        write_value(s, static_cast<std::underlying_type_t<T>>(v));
    } else if constexpr (std::is_integral_v<T>) {
        char buf[24];
        const std::to_chars_result r = std::to_chars(buf, buf + sizeof buf, v);
        s.write(buf, static_cast<std::size_t>(r.ptr - buf));
    } else if constexpr (std::is_floating_point_v<T>) {
        const double d = static_cast<double>(v);
        if (std::isfinite(d)) {
            // The shortest text that reads back to the same double.
            char buf[32];
            const std::to_chars_result r = std::to_chars(buf, buf + sizeof buf, d);
            s.write(buf, static_cast<std::size_t>(r.ptr - buf));
        } else {
            // JSON has no spelling for these; a quoted text reads back to the same value.
            s.write(std::isnan(d) ? "\"nan\"" : d > 0 ? "\"inf\"" : "\"-inf\"", std::isnan(d) ? 5 : d > 0 ? 5 : 6);
        }
    } else if constexpr (is_vector<T>::value) {
        s.put('[');
        bool first = true;
        for (const auto &element : v) {
            if (!first)
                s.put(',');
            first = false;
            write_value(s, static_cast<const typename T::value_type &>(element));
        }
        s.put(']');
    } else if constexpr (is_record<T>::value) {
        write_record(s, v);
    } else {
        static_assert(unsupported_type<T>, "ajson: member type not supported");
    }
}

} // namespace detail

// ---------------------------------------------------------------------------------------------
// Entry points

// Reads text (length bytes, or up to the first NUL when length is 0) into record. Members whose
// key is absent keep their values; on an error the members read so far keep theirs too.
template<class T>
void load_from_buff(T &record, const char *text, std::size_t length = 0)
{
    static_assert(detail::is_record<T>::value, "ajson: declare the record type with AJSON(...)");
    detail::reader r(text, length);
    r.next();
    if (!r.is_punct('{'))
        r.error("read object must start with {!");
    detail::read_members(r, record);
}

template<class T>
void load_from_file(T &record, const char *path)
{
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in)
        throw std::logic_error(std::string("can't open file:") + path);
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    std::string buffer(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    if (size > 0 && !in.read(&buffer[0], size))
        throw std::logic_error(std::string("can't read file:") + path);
    // Editors on Windows like to start UTF-8 files with a byte-order mark.
    std::size_t skip = 0;
    if (buffer.size() >= 3 && std::memcmp(buffer.data(), "\xEF\xBB\xBF", 3) == 0)
        skip = 3;
    // std::string keeps a NUL after its last byte, so the text is terminated as well.
    load_from_buff(record, buffer.c_str() + skip, 0);
}

// Writes record compactly to any stream with write(const char*, n) and put(char). A standard
// stream gets the whole text in one write: its per-call overhead is far above ours.
template<class Stream, class T>
void save_to(Stream &stream, const T &record)
{
    static_assert(detail::is_record<T>::value, "ajson: declare the record type with AJSON(...)");
    if constexpr (std::is_base_of_v<std::ostream, Stream>) {
        string_stream text;
        detail::write_record(text, record);
        stream.write(text.str().data(), static_cast<std::streamsize>(text.str().size()));
    } else {
        detail::write_record(stream, record);
    }
}

template<class T>
void save_to_file(const T &record, const char *path)
{
    string_stream text;
    detail::write_record(text, record);
    std::ofstream out(path, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!out)
        throw std::logic_error(std::string("can't open file:") + path);
    out.write(text.str().data(), static_cast<std::streamsize>(text.str().size()));
    if (!out.flush())
        throw std::logic_error(std::string("can't write file:") + path);
}

} // namespace ajson

// ---------------------------------------------------------------------------------------------
// The record declaration. AJSON(Type, a, b, c) defines, in Type's namespace:
//  - the name table, split from the stringised member list once, on first use;
//  - ajson_member_at(record, i, f), which hands member i to f (reading);
//  - ajson_for_each_member(record, f), which hands (i, member) to f in order (writing).
// Up to 128 members.

#define AJSON_DETAIL_EXPAND(x) x
#define AJSON_DETAIL_CAT(a, b) AJSON_DETAIL_CAT_I(a, b)
#define AJSON_DETAIL_CAT_I(a, b) a##b
#define AJSON_DETAIL_ARG_N(                                                                                            \
    _1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, _17, _18, _19, _20, _21, _22, _23, _24,     \
    _25, _26, _27, _28, _29, _30, _31, _32, _33, _34, _35, _36, _37, _38, _39, _40, _41, _42, _43, _44, _45, _46, _47, \
    _48, _49, _50, _51, _52, _53, _54, _55, _56, _57, _58, _59, _60, _61, _62, _63, _64, _65, _66, _67, _68, _69, _70, \
    _71, _72, _73, _74, _75, _76, _77, _78, _79, _80, _81, _82, _83, _84, _85, _86, _87, _88, _89, _90, _91, _92, _93, \
    _94, _95, _96, _97, _98, _99, _100, _101, _102, _103, _104, _105, _106, _107, _108, _109, _110, _111, _112, _113,  \
    _114, _115, _116, _117, _118, _119, _120, _121, _122, _123, _124, _125, _126, _127, _128, N, ...)                  \
    N
#define AJSON_DETAIL_NARG(...)                                                                                         \
    AJSON_DETAIL_EXPAND(                                                                                               \
        AJSON_DETAIL_ARG_N(__VA_ARGS__, 128, 127, 126, 125, 124, 123, 122, 121, 120, 119, 118, 117, 116, 115, 114,     \
                           113, 112, 111, 110, 109, 108, 107, 106, 105, 104, 103, 102, 101, 100, 99, 98, 97, 96, 95,   \
                           94, 93, 92, 91, 90, 89, 88, 87, 86, 85, 84, 83, 82, 81, 80, 79, 78, 77, 76, 75, 74, 73, 72, \
                           71, 70, 69, 68, 67, 66, 65, 64, 63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, \
                           48, 47, 46, 45, 44, 43, 42, 41, 40, 39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26, \
                           25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1))
#define AJSON_DETAIL_FE_1(M, N, x) M((N)-1, x)
#define AJSON_DETAIL_FE_2(M, N, x, ...) M((N)-2, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_1(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_3(M, N, x, ...) M((N)-3, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_2(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_4(M, N, x, ...) M((N)-4, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_3(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_5(M, N, x, ...) M((N)-5, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_4(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_6(M, N, x, ...) M((N)-6, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_5(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_7(M, N, x, ...) M((N)-7, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_6(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_8(M, N, x, ...) M((N)-8, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_7(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_9(M, N, x, ...) M((N)-9, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_8(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_10(M, N, x, ...) M((N)-10, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_9(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_11(M, N, x, ...) M((N)-11, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_10(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_12(M, N, x, ...) M((N)-12, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_11(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_13(M, N, x, ...) M((N)-13, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_12(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_14(M, N, x, ...) M((N)-14, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_13(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_15(M, N, x, ...) M((N)-15, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_14(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_16(M, N, x, ...) M((N)-16, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_15(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_17(M, N, x, ...) M((N)-17, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_16(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_18(M, N, x, ...) M((N)-18, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_17(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_19(M, N, x, ...) M((N)-19, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_18(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_20(M, N, x, ...) M((N)-20, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_19(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_21(M, N, x, ...) M((N)-21, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_20(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_22(M, N, x, ...) M((N)-22, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_21(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_23(M, N, x, ...) M((N)-23, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_22(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_24(M, N, x, ...) M((N)-24, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_23(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_25(M, N, x, ...) M((N)-25, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_24(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_26(M, N, x, ...) M((N)-26, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_25(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_27(M, N, x, ...) M((N)-27, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_26(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_28(M, N, x, ...) M((N)-28, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_27(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_29(M, N, x, ...) M((N)-29, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_28(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_30(M, N, x, ...) M((N)-30, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_29(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_31(M, N, x, ...) M((N)-31, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_30(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_32(M, N, x, ...) M((N)-32, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_31(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_33(M, N, x, ...) M((N)-33, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_32(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_34(M, N, x, ...) M((N)-34, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_33(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_35(M, N, x, ...) M((N)-35, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_34(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_36(M, N, x, ...) M((N)-36, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_35(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_37(M, N, x, ...) M((N)-37, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_36(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_38(M, N, x, ...) M((N)-38, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_37(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_39(M, N, x, ...) M((N)-39, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_38(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_40(M, N, x, ...) M((N)-40, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_39(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_41(M, N, x, ...) M((N)-41, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_40(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_42(M, N, x, ...) M((N)-42, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_41(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_43(M, N, x, ...) M((N)-43, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_42(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_44(M, N, x, ...) M((N)-44, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_43(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_45(M, N, x, ...) M((N)-45, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_44(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_46(M, N, x, ...) M((N)-46, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_45(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_47(M, N, x, ...) M((N)-47, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_46(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_48(M, N, x, ...) M((N)-48, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_47(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_49(M, N, x, ...) M((N)-49, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_48(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_50(M, N, x, ...) M((N)-50, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_49(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_51(M, N, x, ...) M((N)-51, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_50(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_52(M, N, x, ...) M((N)-52, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_51(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_53(M, N, x, ...) M((N)-53, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_52(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_54(M, N, x, ...) M((N)-54, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_53(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_55(M, N, x, ...) M((N)-55, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_54(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_56(M, N, x, ...) M((N)-56, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_55(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_57(M, N, x, ...) M((N)-57, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_56(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_58(M, N, x, ...) M((N)-58, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_57(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_59(M, N, x, ...) M((N)-59, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_58(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_60(M, N, x, ...) M((N)-60, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_59(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_61(M, N, x, ...) M((N)-61, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_60(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_62(M, N, x, ...) M((N)-62, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_61(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_63(M, N, x, ...) M((N)-63, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_62(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_64(M, N, x, ...) M((N)-64, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_63(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_65(M, N, x, ...) M((N)-65, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_64(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_66(M, N, x, ...) M((N)-66, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_65(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_67(M, N, x, ...) M((N)-67, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_66(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_68(M, N, x, ...) M((N)-68, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_67(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_69(M, N, x, ...) M((N)-69, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_68(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_70(M, N, x, ...) M((N)-70, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_69(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_71(M, N, x, ...) M((N)-71, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_70(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_72(M, N, x, ...) M((N)-72, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_71(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_73(M, N, x, ...) M((N)-73, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_72(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_74(M, N, x, ...) M((N)-74, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_73(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_75(M, N, x, ...) M((N)-75, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_74(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_76(M, N, x, ...) M((N)-76, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_75(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_77(M, N, x, ...) M((N)-77, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_76(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_78(M, N, x, ...) M((N)-78, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_77(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_79(M, N, x, ...) M((N)-79, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_78(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_80(M, N, x, ...) M((N)-80, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_79(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_81(M, N, x, ...) M((N)-81, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_80(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_82(M, N, x, ...) M((N)-82, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_81(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_83(M, N, x, ...) M((N)-83, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_82(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_84(M, N, x, ...) M((N)-84, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_83(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_85(M, N, x, ...) M((N)-85, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_84(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_86(M, N, x, ...) M((N)-86, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_85(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_87(M, N, x, ...) M((N)-87, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_86(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_88(M, N, x, ...) M((N)-88, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_87(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_89(M, N, x, ...) M((N)-89, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_88(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_90(M, N, x, ...) M((N)-90, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_89(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_91(M, N, x, ...) M((N)-91, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_90(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_92(M, N, x, ...) M((N)-92, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_91(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_93(M, N, x, ...) M((N)-93, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_92(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_94(M, N, x, ...) M((N)-94, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_93(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_95(M, N, x, ...) M((N)-95, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_94(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_96(M, N, x, ...) M((N)-96, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_95(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_97(M, N, x, ...) M((N)-97, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_96(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_98(M, N, x, ...) M((N)-98, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_97(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_99(M, N, x, ...) M((N)-99, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_98(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_100(M, N, x, ...) M((N)-100, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_99(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_101(M, N, x, ...) M((N)-101, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_100(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_102(M, N, x, ...) M((N)-102, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_101(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_103(M, N, x, ...) M((N)-103, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_102(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_104(M, N, x, ...) M((N)-104, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_103(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_105(M, N, x, ...) M((N)-105, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_104(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_106(M, N, x, ...) M((N)-106, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_105(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_107(M, N, x, ...) M((N)-107, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_106(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_108(M, N, x, ...) M((N)-108, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_107(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_109(M, N, x, ...) M((N)-109, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_108(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_110(M, N, x, ...) M((N)-110, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_109(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_111(M, N, x, ...) M((N)-111, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_110(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_112(M, N, x, ...) M((N)-112, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_111(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_113(M, N, x, ...) M((N)-113, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_112(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_114(M, N, x, ...) M((N)-114, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_113(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_115(M, N, x, ...) M((N)-115, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_114(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_116(M, N, x, ...) M((N)-116, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_115(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_117(M, N, x, ...) M((N)-117, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_116(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_118(M, N, x, ...) M((N)-118, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_117(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_119(M, N, x, ...) M((N)-119, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_118(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_120(M, N, x, ...) M((N)-120, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_119(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_121(M, N, x, ...) M((N)-121, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_120(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_122(M, N, x, ...) M((N)-122, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_121(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_123(M, N, x, ...) M((N)-123, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_122(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_124(M, N, x, ...) M((N)-124, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_123(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_125(M, N, x, ...) M((N)-125, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_124(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_126(M, N, x, ...) M((N)-126, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_125(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_127(M, N, x, ...) M((N)-127, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_126(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FE_128(M, N, x, ...) M((N)-128, x) AJSON_DETAIL_EXPAND(AJSON_DETAIL_FE_127(M, N, __VA_ARGS__))
#define AJSON_DETAIL_FOR_EACH(M, ...)                                                                                  \
    AJSON_DETAIL_EXPAND(AJSON_DETAIL_CAT(AJSON_DETAIL_FE_, AJSON_DETAIL_NARG(__VA_ARGS__))(                            \
        M, AJSON_DETAIL_NARG(__VA_ARGS__), __VA_ARGS__))

#define AJSON_DETAIL_CASE(i, m)                                                                                        \
    case i:                                                                                                            \
        f(record.m);                                                                                                   \
        break;
#define AJSON_DETAIL_CALL(i, m) f(i, record.m);

#define AJSON(TYPE, ...)                                                                                               \
    inline const ::ajson::detail::name_table &ajson_name_table(const TYPE *)                                           \
    {                                                                                                                  \
        static const ::ajson::detail::name_table table(#__VA_ARGS__, AJSON_DETAIL_NARG(__VA_ARGS__));                  \
        return table;                                                                                                  \
    }                                                                                                                  \
    template<class F>                                                                                                  \
    inline void ajson_member_at(TYPE &record, std::size_t index, F &&f)                                                \
    {                                                                                                                  \
        switch (index) {                                                                                               \
            AJSON_DETAIL_FOR_EACH(AJSON_DETAIL_CASE, __VA_ARGS__)                                                      \
        default:                                                                                                       \
            break;                                                                                                     \
        }                                                                                                              \
    }                                                                                                                  \
    template<class F>                                                                                                  \
    inline void ajson_for_each_member(const TYPE &record, F &&f)                                                       \
    {                                                                                                                  \
        AJSON_DETAIL_FOR_EACH(AJSON_DETAIL_CALL, __VA_ARGS__)                                                          \
    }
