// Tests of the JSON record mapping: reading rules, error texts and positions, escapes, the
// writer's exact output, files, the non-throwing wrappers and first use from several threads.

#include "cloudmaterial/protocol/ajson.hpp"
#include "cloudmaterial/protocol/ajsonex.h"

#include <QtTest>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <thread>

namespace probe {

struct Child
{
    std::int32_t n = 0;
    std::string name;
};
AJSON(Child, n, name)

// One member of every kind the mapping supports.
struct Probe
{
    std::string s;
    bool b = false;
    std::int32_t i32 = 0;
    std::int64_t i64 = 0;
    std::uint64_t u64 = 0;
    std::uint32_t u32 = 0;
    double d = 0.0;
    Child child;
    std::vector<std::int32_t> ints;
    std::vector<std::string> strs;
    std::vector<Child> kids;
};
AJSON(Probe, s, b, i32, i64, u64, u32, d, child, ints, strs, kids)

// A field list written the way some of the cloud's records are: blanks in odd places.
struct Spaced
{
    std::string alpha, beta;
    std::int32_t gamma = 0;
};
AJSON(Spaced, alpha, beta, gamma)

// Nests through its own vector, so a text can drive reading as deep as it likes.
struct Node
{
    std::int32_t n = 0;
    std::vector<Node> kids;
};
AJSON(Node, n, kids)

// Fields the cloud sends as numbers or as strings.
struct Loose
{
    ajson::text size, status;
};
AJSON(Loose, size, status)

// Used by the concurrency test only, so that its name table is built there.
struct FirstUse
{
    std::int32_t id = 0;
    std::string name;
};
AJSON(FirstUse, id, name)

// Allocates by throwing something that is not a std::exception.
template<class T>
struct RefusingAllocator
{
    using value_type = T;
    RefusingAllocator() = default;
    template<class U>
    RefusingAllocator(const RefusingAllocator<U> &)
    {
    }
    T *allocate(std::size_t) { throw 7; }
    void deallocate(T *, std::size_t) { }
    bool operator==(const RefusingAllocator &) const { return true; }
    bool operator!=(const RefusingAllocator &) const { return false; }
};
struct Refusing
{
    std::int32_t first = 0;
    std::vector<std::int32_t, RefusingAllocator<std::int32_t>> values;
};
AJSON(Refusing, first, values)

} // namespace probe

namespace {

template<class T>
std::string written(const T &record)
{
    ajson::string_stream out;
    ajson::save_to(out, record);
    return out.str();
}

// The members that differ from their defaults, in declaration order; independent of the
// writer so that reading is checked on its own.
QString describe(const probe::Probe &p)
{
    const auto child = [](const probe::Child &c) {
        QStringList set;
        if (c.n)
            set << QStringLiteral("n=%1").arg(c.n);
        if (!c.name.empty())
            set << "name=" + QString::fromStdString(c.name);
        return '{' + set.join(' ') + '}';
    };
    const auto list = [](const auto &v, auto show) {
        QStringList items;
        for (const auto &e : v)
            items << show(e);
        return '[' + items.join(',') + ']';
    };
    const auto text = [](const std::string &s) { return QString::fromStdString(s); };
    const auto number = [](auto n) { return QString::number(n); };
    QStringList parts;
    for (const auto &[set, shown] : std::initializer_list<std::pair<bool, QString>>{
             {!p.s.empty(), "s=" + text(p.s)},
             {p.b, "b=true"},
             {p.i32 != 0, "i32=" + number(p.i32)},
             {p.i64 != 0, "i64=" + number(p.i64)},
             {p.u64 != 0, "u64=" + number(p.u64)},
             {p.u32 != 0, "u32=" + number(p.u32)},
             {p.d != 0.0, "d=" + QString::number(p.d, 'g', 17)},
             {p.child.n || !p.child.name.empty(), "child=" + child(p.child)},
             {!p.ints.empty(), "ints=" + list(p.ints, number)},
             {!p.strs.empty(), "strs=" + list(p.strs, text)},
             {!p.kids.empty(), "kids=" + list(p.kids, child)}}) {
        if (set)
            parts << shown;
    }
    return parts.join(QLatin1Char(' '));
}

// The error text of reading, or "" when there was none.
template<class T>
QString errorOf(T &record, const char *text, std::size_t length)
{
    try {
        ajson::load_from_buff(record, text, length);
    } catch (const ajson::exception &e) {
        return QString::fromUtf8(e.what());
    }
    return QString();
}

QString expectedError(int line, int col, const char *message)
{
    return QStringLiteral("error at line :%1 col :%2 msg:%3").arg(line).arg(col).arg(QLatin1String(message));
}

// The Qt log records: type, category, file, function, message.
QList<QStringList> s_records;
void collect(QtMsgType type, const QMessageLogContext &c, const QString &message)
{
    s_records.append({QString::number(type), c.category, c.file, c.function, message});
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

} // namespace

class TestAjson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reading_data();
    void reading()
    {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, text);
        QFETCH(int, length);
        QFETCH(QString, expected);

        probe::Probe p;
        QVERIFY(before.isEmpty() || errorOf(p, before.constData(), std::size_t(before.size())).isEmpty());
        const QString error =
            errorOf(p, text.isNull() ? nullptr : text.constData(), std::size_t(length < 0 ? text.size() : length));
        QCOMPARE(error.isEmpty() ? describe(p) : describe(p) + '|' + error, expected);
    }

    void escapeOnWrite_data();
    void escapeOnWrite();

    void writer()
    {
        probe::Probe p;
        QCOMPARE(QByteArray::fromStdString(written(p)),
                 QByteArray(R"({"s":"","b":false,"i32":0,"i64":0,"u64":0,"u32":0,"d":0,)"
                            R"("child":{"n":0,"name":""},"ints":[],"strs":[],"kids":[]})"));
        p = {"a\tb",
             true,
             std::numeric_limits<std::int32_t>::min(),
             -9000000000,
             std::numeric_limits<std::uint64_t>::max(),
             4000000000u,
             2.5,
             {3, "c"},
             {1, -2},
             {"x", ""},
             {{1, ""}, {0, "k"}}};
        const QByteArray full(
            R"({"s":"a\tb","b":true,"i32":-2147483648,"i64":-9000000000,"u64":18446744073709551615,"u32":4000000000,"d":2.5,)"
            R"("child":{"n":3,"name":"c"},"ints":[1,-2],"strs":["x",""],"kids":[{"n":1,"name":""},{"n":0,"name":"k"}]})");
        QCOMPARE(QByteArray::fromStdString(written(p)), full);
        // Any stream with write() and put() takes the same text; a string_stream appends.
        std::ostringstream os;
        ajson::save_to(os, p);
        ajson::string_stream ss;
        ajson::save_to(ss, p.child);
        ajson::save_to(ss, p.child);
        QCOMPARE(QByteArray::fromStdString(os.str() + ss.str()), full + R"({"n":3,"name":"c"}{"n":3,"name":"c"})");

        // Names are trimmed of the blanks around them and bound in list order.
        probe::Spaced s;
        ajson::load_from_buff(s, R"({"gamma":3,"beta":"b","alpha":"a","beta ":"x"})");
        QCOMPARE(written(s), std::string(R"({"alpha":"a","beta":"b","gamma":3})"));
        // Records nesting through their own vectors count towards the same depth limit:
        // the 1001st bracket is the `{` that starts group 501 of `{"kids":[`.
        probe::Node root;
        const QByteArray deep = QByteArray("{\"kids\":[").repeated(100000);
        QCOMPARE(errorOf(root, deep.constData(), std::size_t(deep.size())),
                 expectedError(0, 500 * 9 + 1, "invalid json document!"));
    }

    void textMembers()
    {
        const struct
        {
            const char *text, *size, *written;
        } rows[] = {{R"({"size":"1080"})", "1080", "1080"},
                    {R"({"size":-1.50e3})", "-1.50e3", "-1.50e3"},
                    {R"({"size":abc})", "abc", "abc"},
                    {R"({"size":"a\u00e9"})", "a\xC3\xA9", R"(a\u00E9)"}};
        for (const auto &row : rows) {
            probe::Loose loose;
            ajson::load_from_buff(loose, row.text);
            const std::string &plain = loose.size; // used where a std::string is expected
            QCOMPARE(plain, std::string(row.size));
            QCOMPARE(written(loose), R"({"size":")" + std::string(row.written) + R"(","status":""})");
        }
        probe::Loose loose;
        QCOMPARE(errorOf(loose, R"({"size":[1]})", 12), expectedError(0, 9, "not a valid string."));
    }

    void doubles_data()
    {
        QTest::addColumn<double>("value");
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("0.1") << 0.1 << QByteArray("0.1");
        QTest::newRow("a third") << 1.0 / 3.0 << QByteArray("0.3333333333333333");
        QTest::newRow("2^64") << 18446744073709551616.0 << QByteArray("18446744073709551616");
        QTest::newRow("max") << std::numeric_limits<double>::max() << QByteArray("1.7976931348623157e+308");
        QTest::newRow("denormal") << std::numeric_limits<double>::denorm_min() << QByteArray("5e-324");
        QTest::newRow("negative zero") << -0.0 << QByteArray("-0");
        QTest::newRow("-inf") << -std::numeric_limits<double>::infinity() << QByteArray("\"-inf\"");
        QTest::newRow("nan") << std::numeric_limits<double>::quiet_NaN() << QByteArray("\"nan\"");
    }

    void doubles()
    {
        QFETCH(double, value);
        QFETCH(QByteArray, text);
        probe::Probe p, back;
        p.d = value;
        const QByteArray out = QByteArray::fromStdString(written(p));
        QVERIFY2(out.contains(",\"d\":" + text + ",\"child\""), out.constData());
        back.d = 12345.0;
        ajson::load_from_buff(back, out.constData());
        // Bit for bit: the sign of zero counts.
        QVERIFY(std::isnan(value) ? std::isnan(back.d) : std::memcmp(&back.d, &value, sizeof value) == 0);
    }

    void files()
    {
        QTemporaryDir dir;
        probe::Probe p;
        const QByteArray path = dir.filePath("f.json").toLocal8Bit(),
                         missing = dir.filePath("missing.json").toLocal8Bit();
        // A byte-order mark is skipped and does not count for positions; the errors come from reading, not from
        // opening.
        const struct
        {
            QByteArray bytes;
            QString error;
        } rows[] = {{"\xEF\xBB\xBF{\"i32\":7}", QString()},
                    {"\xEF\xBB\xBF{\"s\":1}", expectedError(0, 6, "not a valid string.")},
                    {"\xEF\xBB", expectedError(0, 2, "read object must start with {!")},
                    {"", expectedError(0, 0, "read object must start with {!")}};
        for (const auto &row : rows) {
            QVERIFY(writeFile(path, row.bytes));
            try {
                ajson::load_from_file(p, path.constData());
                QVERIFY(row.error.isEmpty() && p.i32 == 7);
            } catch (const ajson::exception &e) {
                QCOMPARE(QString::fromUtf8(e.what()), row.error);
            }
        }
        // A missing file or one that cannot be written is a logic_error, not a parse error.
        for (const QByteArray &bad : {missing, dir.path().toLocal8Bit()}) {
            try {
                bad == missing ? ajson::load_from_file(p, bad.constData()) : ajson::save_to_file(p, bad.constData());
                QFAIL("no error");
            } catch (const ajson::exception &) {
                QFAIL("reported as a parse error");
            } catch (const std::logic_error &e) {
                QCOMPARE(QByteArray(e.what()), "can't open file:" + bad);
            }
        }
        p.s = "\xC3\xA9";
        ajson::save_to_file(p, path.constData());
        QFile f(path);
        QCOMPARE(f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("unreadable"),
                 QByteArray::fromStdString(written(p)));
    }

    // What was read before an error stays, the rest keeps its value; the error is logged once,
    // as info in rxcm.json, and a good text logs nothing. Exceptions of other kinds pass through.
    void nothrow()
    {
        const QtMessageHandler previous = qInstallMessageHandler(collect);
        QTemporaryDir dir;
        probe::Probe p;
        p.u32 = 9;
        ajson::load_from_buff_nothrow(p, R"({"i32":5,"s":"x","b":[],"u32":1})");
        QCOMPARE(describe(p), QStringLiteral("s=x i32=5 u32=9"));
        const char text[] = R"({"i32":61})";
        ajson::load_from_buff_nothrow(p, text, 8); // the explicit length is passed on
        QCOMPARE(p.i32, 6);
        const QByteArray missing = dir.filePath("nothing.json").toLocal8Bit(),
                         bad = dir.filePath("bad.json").toLocal8Bit();
        ajson::load_from_file_nothrow(p, missing.constData());
        QVERIFY(writeFile(bad, "{\"i32\":4,\n\"ints\":{}}"));
        ajson::load_from_file_nothrow(p, bad.constData());
        QCOMPARE(p.i32, 4);
        ajson::load_from_buff_nothrow(p, text);
        QCOMPARE(p.i32, 61);

        const QString buff = QStringLiteral("load from buff throw exception: e.what() is:{} ");
        const QString file = QStringLiteral("load from file throw exception: e.what() is: ");
        const QStringList expected{
            buff + expectedError(0, 22, "not a valid bool."), buff + expectedError(0, 8, "object key must be string"),
            file + "can't open file:" + missing, file + expectedError(1, 8, "array must start with [.")};
        QCOMPARE(s_records.size(), expected.size());
        for (int i = 0; i < expected.size(); ++i) {
            const QStringList &r = s_records.at(i);
            QCOMPARE(r.mid(0, 3), (QStringList{QString::number(QtInfoMsg), "rxcm.json", "cloudmaterial/ajsonex"}));
            QCOMPARE(r.at(4), expected.at(i));
            QVERIFY2(r.at(3).contains(i < 2 ? "load_from_buff_nothrow" : "load_from_file_nothrow")
                         && r.at(3).contains("probe::Probe"),
                     qPrintable(r.at(3)));
        }
        // The category's filter is obeyed.
        QLoggingCategory::setFilterRules(QStringLiteral("rxcm.json.info=false"));
        ajson::load_from_buff_nothrow(p, "[]");
        QLoggingCategory::setFilterRules(QString());
        QCOMPARE(s_records.size(), expected.size());

        probe::Refusing r;
        try {
            ajson::load_from_buff_nothrow(r, R"({"first":1,"values":[1]})");
            QFAIL("the allocator's exception was swallowed");
        } catch (int code) {
            QCOMPARE(code, 7);
        }
        qInstallMessageHandler(previous);
        QVERIFY(r.first == 1 && s_records.size() == expected.size());
    }

    void concurrentFirstUse()
    {
        const unsigned before = ajson::detail::name_tables_built().load();
        std::atomic<int> ready{0}, failures{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&, t] {
                for (++ready; ready.load() < 8;)
                    std::this_thread::yield();
                for (int k = 0; k < 200; ++k) {
                    const std::string expected =
                        "{\"id\":" + std::to_string(t * 1000 + k) + ",\"name\":\"t" + std::to_string(t) + "\"}";
                    const std::string text =
                        "{\"name\":\"t" + std::to_string(t) + "\",\"id\":" + std::to_string(t * 1000 + k) + "}";
                    probe::FirstUse rec;
                    ajson::load_from_buff(rec, text.c_str(), text.size());
                    failures += written(rec) != expected;
                }
            });
        }
        for (std::thread &th : threads)
            th.join();
        QCOMPARE(failures.load(), 0);
        QCOMPARE(ajson::detail::name_tables_built().load(), before + 1);
    }
};

void TestAjson::reading_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("text"); // null: no text at all
    QTest::addColumn<int>("length"); // -1: the whole text
    QTest::addColumn<QString>("expected"); // what was read, "|" and the error where there is one

    auto row = [](const char *name, const char *before, const QByteArray &text, const char *expected, int length = -1) {
        QTest::newRow(name) << QByteArray(before) << text << length << QString::fromUtf8(expected);
    };
    auto err = [](const char *name, const QByteArray &text, int line, int col, const char *msg, const char *read = "",
                  int length = -1) {
        QTest::newRow(name) << QByteArray() << text << length
                            << QLatin1String(read) + '|' + expectedError(line, col, msg);
    };
    row("every kind", "",
        R"({"s":"abc","b":true,"i32":-7,"i64":-9000000000,"u64":42,"u32":7,"d":2.5,"child":{"n":3,"name":"c"},)"
        R"("ints":[1,2],"strs":["x","y"],"kids":[{"n":1},{"name":"k"}]})",
        "s=abc b=true i32=-7 i64=-9000000000 u64=42 u32=7 d=2.5 child={n=3 name=c} ints=[1,2] strs=[x,y] "
        "kids=[{n=1},{name=k}]");

    // Leniency the cloud and our own files rely on.
    row("commas between members are optional", "", R"({"i32":1 "s":"x""b":true})", "s=x b=true i32=1");
    row("trailing comma", "", R"({"i32":1,"s":"x",})", "s=x i32=1");
    row("blanks", "", "\t{\r\n \"i32\"\r\n:\n 5 \t}", "i32=5");
    row("line comments", "", "{// head\n\"i32\":// value\n5// tail\n}", "i32=5");
    row("block comments", "", "/**/{/* a */\"i32\"/* b */:/* two\nlines */5/***/}", "i32=5");
    row("bare word runs to blank or punctuation", "", R"({"s":a/b+c'd"e "i32":1})", "s=a/b+c'd\"e i32=1");
    // Numbers in strings, booleans, numbers.
    row("quoted with blank and tail", "", R"({"i32":" 42abc","i64":"-34"})", "i32=42 i64=-34");
    row("non-numeric text gives 0", R"({"i32":5,"u64":6})", R"({"i32":"abc","u64":x})", "");
    row("quoted -1 into uint64 wraps like strtoull", "", R"({"u64":"-1"})", "u64=18446744073709551615");
    row("quoted overflow saturates", "", R"({"i64":"99999999999999999999"})", "i64=9223372036854775807");
    row("TRUE into integers", "", R"({"i32":TRUE,"u64":"True","d":"3.25"})", "i32=1 u64=1 d=3.25");
    row("bool from mixed case", "", R"({"b":"tRuE"})", "b=true");
    row("bool from five bytes", R"({"b":true})", R"({"b":"true "})", "");
    row("bool from 0.0", R"({"b":true})", R"({"b":0.0})", "");
    row("-1.5 into signed gives -1", "", R"({"i32":-1.5,"i64":2.9})", "i32=-1 i64=2");
    row("float into unsigned", "", R"({"u64":9.3e18,"u32":4294967295})", "u64=9300000000000000000 u32=4294967295");
    row("extreme integers", "", R"({"i64":-9223372036854775808,"u64":18446744073709551615})",
        "i64=-9223372036854775808 u64=18446744073709551615");
    row("double with exponent", "", R"({"d":-2.5e-3})", "d=-0.0025000000000000001");
    row("double from a 20-digit integer", "", R"({"d":-18446744073709551616})", "d=-1.8446744073709552e+19");
    // Unknown keys; what reading leaves alone.
    row("unknown nested values are skipped", "",
        R"({"zz":{"a":[1,{"b":[2,3]},"x",[]],"c":{},"d":[{}]},"w":abc,"x":"q\"","y":-1.5e3,"i32":4})", "i32=4");
    row("keys compare exactly", "", "{\"I32\":1,\"i32 \":2,\"i3\":3,\"i32x\":5,\"\xC3\xA9\":6,\"i32\":4}", "i32=4");
    row("absent keys keep their values", R"({"i32":5,"s":"keep"})", R"({"b":true})", "s=keep b=true i32=5");
    row("nested record is merged", R"({"child":{"n":1}})", R"({"child":{"name":"x"}})", "child={n=1 name=x}");
    row("text after the object is ignored", "", R"({"i32":1} trailing [)", "i32=1");
    row("null keeps a vector", R"({"ints":[1,2]})", R"({"ints":null})", "ints=[1,2]");
    row("array replaces the content", R"({"ints":[1,2]})", R"({"ints":[3]})", "ints=[3]");
    row("array elements convert like members", "", R"({"ints":["7",TRUE,-2.5],"strs":[w,"q",]})",
        "ints=[7,1,-2] strs=[w,q]");
    // Escapes: surrogates are not paired, raw bytes pass.
    row("escape pairs", "", R"({"s":"\"\\\/\b\f\n\r\t"})", "s=\"\\/\b\f\n\r\t");
    row("\\u of every UTF-8 length", "", R"({"s":"\u0041\u00e9\u07FF\u20aC\uFFFF"})",
        "s=A\xC3\xA9\xDF\xBF\xE2\x82\xAC\xEF\xBF\xBF");
    row("surrogates stay apart", "", R"({"s":"\uD83D\uDE00"})", "s=\xED\xA0\xBD\xED\xB8\x80");
    row("raw UTF-8 and TAB pass", "", "{\"s\":\"\xF0\x9F\x98\x80\ta\"}", "s=\xF0\x9F\x98\x80\ta");
    row("bare word with escapes", "", R"({"s":a\u0041\tb})", "s=aA\tb");
    // The length limit cuts the text; a NUL ends it.
    err("number cut", R"({"i32":1234})", 0, 8, "object key must be string", "i32=1", 8);
    err("NUL before the end", QByteArray("{\"i32\":5\0}", 10), 0, 8, "object key must be string", "i32=5");
    err("no text, a length", QByteArray(), 0, 0, "read object must start with {!", "", 5);

    const char *notObject = "read object must start with {!", *keyNotString = "object key must be string",
               *invalid = "invalid json document!", *notString = "not a valid string.",
               *notQuote = "not a valid quote string!", *notSigned = "not a valid signed integral like number.",
               *notArray = "array must start with [.", *noArray = "no valid array!", *notNumber = "not a valid number!";
    err("empty text", "", 0, 0, notObject);
    err("top-level array", "[1]", 0, 1, notObject);
    err("single-quoted key", R"({'a':1})", 0, 4, keyNotString);
    err("missing colon", R"({"a" 1})", 0, 6, invalid);
    err("number into string", R"({"s":1})", 0, 6, notString);
    err("unknown escape", R"({"s":"a\qb"})", 0, 11, notString);
    err("short \\u", R"({"s":"\u12"})", 0, 11, notString);
    err("raw LF in string", "{\"s\":\"ab\ncd\"}", 0, 8, notQuote);
    err("escaped LF counts as a line", "{\"s\":\"a\\\nb\"}", 1, 2, notString);
    err("bool from array", R"({"b":[1]})", 0, 6, "not a valid bool.");
    err("signed from object", R"({"i32":{}})", 0, 8, notSigned);
    err("unsigned from -1", R"({"u64":-1})", 0, 9, "assign a negative signed integral to unsigned integral number.");
    err("unsigned from -1.5", R"({"u64":-1.5})", 0, 11, "assign a negative float point to unsigned integral number.");
    err("unsigned from array", R"({"u64":[]})", 0, 8, "not a valid unsigned integral like number.");
    err("double from array", R"({"d":[]})", 0, 6, "not a valid float point number.");
    err("vector from number", R"({"ints":5})", 0, 9, notArray);
    err("array without commas", R"({"ints":[1 2]})", 0, 12, noArray, "ints=[1]");
    err("record from null", R"({"child":null})", 0, 13, notObject);
    err("record in an array", R"({"kids":[{"n":[]}]})", 0, 15, notSigned, "kids=[{}]");
    err("second dot", R"({"d":1.2.3})", 0, 8, notNumber);
    err("slash without comment", R"({/x})", 0, 2, "not a comment!");
    err("CR before LF", "{\r\n\"s\":\r\n  [1]}", 2, 3, notString);
    err("columns count bytes", "{\"\xC3\xA9\" 1}", 0, 7, invalid);
    // Skipped values follow the same grammar.
    err("skipped array without commas", R"({"zz":[1 2]})", 0, 10, noArray);
    err("skipped object without colon", R"({"zz":{"a" 1}})", 0, 12, invalid);
    err("line after a skipped escaped LF", "{\"zz\":\"a\\\nb\",\"i32\":[", 1, 10, notSigned);
    // Depth: the outer object is the first level; 999 more brackets still read, the 1000th is refused.
    row("999 nested arrays", "", "{\"x\":" + QByteArray(999, '[') + QByteArray(999, ']') + ",\"i32\":1}", "i32=1");
    err("1000 nested arrays", "{\"x\":" + QByteArray(1000, '[') + QByteArray(1000, ']') + "}", 0, 1005, invalid);
    // Each level is `{"a":`, five bytes.
    err("100000 nested objects", "{\"x\":" + QByteArray("{\"a\":").repeated(100000), 0, 5 + 999 * 5 + 1, invalid);
}

void TestAjson::escapeOnWrite_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("readBack");
    QTest::newRow("plain") << QByteArray("a b~/'") << QByteArray(R"("a b~/'")") << QByteArray("a b~/'");
    QTest::newRow("two bytes") << QByteArray("\xC3\xA9") << QByteArray(R"("\u00E9")") << QByteArray("\xC3\xA9");
    // Above U+FFFF the two groups hold the upper and the lower 16 bits, and read back as two separate characters.
    QTest::newRow("four bytes") << QByteArray("\xF0\x9F\x98\x80") << QByteArray(R"("\u0001\uF600")")
                                << QByteArray("\x01\xEF\x98\x80");
    QTest::newRow("controls") << QByteArray("\b\t\n\f\r\x01\x1F\x7F") << QByteArray(R"("\b\t\n\f\r\u0001\u001F\u007F")")
                              << QByteArray("\b\t\n\f\r\x01\x1F\x7F");
    QTest::newRow("quote and backslash") << QByteArray("\"\\") << QByteArray(R"("\"\\")") << QByteArray("\"\\");
    QTest::newRow("stops at NUL") << QByteArray("a\0b", 3) << QByteArray(R"("a")") << QByteArray("a");
    // Bytes that start no valid sequence stand for themselves: invalid, truncated, overlong, above U+10FFFF.
    QTest::newRow("invalid") << QByteArray("\xFF") << QByteArray(R"("\u00FF")") << QByteArray("\xC3\xBF");
    QTest::newRow("truncated") << QByteArray("\xC3\x41") << QByteArray(R"("\u00C3A")") << QByteArray("\xC3\x83\x41");
    QTest::newRow("overlong") << QByteArray("\xC0\x80") << QByteArray(R"("\u00C0\u0080")")
                              << QByteArray("\xC3\x80\xC2\x80");
    QTest::newRow("above U+10FFFF") << QByteArray("\xF4\x90\x80\x80") << QByteArray(R"("\u00F4\u0090\u0080\u0080")")
                                    << QByteArray("\xC3\xB4\xC2\x90\xC2\x80\xC2\x80");
}

void TestAjson::escapeOnWrite()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, readBack);
    probe::Spaced s, back;
    s.alpha = bytes.toStdString();
    const QByteArray expected = "{\"alpha\":" + json + ",\"beta\":\"\",\"gamma\":0}";
    QCOMPARE(QByteArray::fromStdString(written(s)), expected);
    ajson::load_from_buff(back, expected.constData());
    QCOMPARE(QByteArray::fromStdString(back.alpha), readBack);
}

QTEST_GUILESS_MAIN(TestAjson)

#include "tst_ajson.moc"
