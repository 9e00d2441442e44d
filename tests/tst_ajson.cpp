// Tests of the JSON record mapping: reading rules, error texts and positions, escapes, the
// writer's exact output, files, the non-throwing wrappers and first use from several threads.

#include "cloudmaterial/protocol/ajson.hpp"
#include "cloudmaterial/protocol/ajsonex.h"

#include <QByteArray>
#include <QFile>
#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

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
    std::string alpha;
    std::string beta;
    std::int32_t gamma = 0;
};
AJSON(Spaced, alpha,beta , gamma)

// Nests through its own vector, so a text can drive reading as deep as it likes.
struct Node
{
    std::int32_t n = 0;
    std::vector<Node> kids;
};
AJSON(Node, n, kids)

struct Wide
{
    std::int32_t m0{}, m1{}, m2{}, m3{}, m4{}, m5{}, m6{}, m7{}, m8{}, m9{}, m10{}, m11{},
        m12{}, m13{}, m14{}, m15{}, m16{}, m17{}, m18{}, m19{}, m20{}, m21{}, m22{}, m23{},
        m24{}, m25{}, m26{}, m27{}, m28{}, m29{}, m30{}, m31{}, m32{}, m33{}, m34{}, m35{},
        m36{}, m37{}, m38{}, m39{}, m40{}, m41{}, m42{}, m43{}, m44{}, m45{}, m46{}, m47{},
        m48{}, m49{}, m50{}, m51{}, m52{}, m53{}, m54{}, m55{}, m56{}, m57{}, m58{}, m59{},
        m60{}, m61{}, m62{}, m63{}, m64{}, m65{}, m66{}, m67{}, m68{}, m69{}, m70{}, m71{},
        m72{}, m73{}, m74{}, m75{}, m76{}, m77{}, m78{}, m79{}, m80{}, m81{}, m82{}, m83{},
        m84{}, m85{}, m86{}, m87{}, m88{}, m89{}, m90{}, m91{}, m92{}, m93{}, m94{}, m95{},
        m96{}, m97{}, m98{}, m99{}, m100{}, m101{}, m102{}, m103{}, m104{}, m105{}, m106{},
        m107{}, m108{}, m109{}, m110{}, m111{}, m112{}, m113{}, m114{}, m115{}, m116{}, m117{},
        m118{}, m119{}, m120{}, m121{}, m122{}, m123{}, m124{}, m125{}, m126{}, m127{};
};
AJSON(Wide, m0, m1, m2, m3, m4, m5, m6, m7, m8, m9, m10, m11, m12, m13, m14, m15, m16, m17, m18,
      m19, m20, m21, m22, m23, m24, m25, m26, m27, m28, m29, m30, m31, m32, m33, m34, m35, m36,
      m37, m38, m39, m40, m41, m42, m43, m44, m45, m46, m47, m48, m49, m50, m51, m52, m53, m54,
      m55, m56, m57, m58, m59, m60, m61, m62, m63, m64, m65, m66, m67, m68, m69, m70, m71, m72,
      m73, m74, m75, m76, m77, m78, m79, m80, m81, m82, m83, m84, m85, m86, m87, m88, m89, m90,
      m91, m92, m93, m94, m95, m96, m97, m98, m99, m100, m101, m102, m103, m104, m105, m106,
      m107, m108, m109, m110, m111, m112, m113, m114, m115, m116, m117, m118, m119, m120, m121,
      m122, m123, m124, m125, m126, m127)

// Fields the cloud sends as numbers or as strings.
struct Loose
{
    ajson::text size;
    ajson::text status;
};
AJSON(Loose, size, status)

// Used by the concurrency test only, so that its name table is built there.
struct FirstUse
{
    std::int32_t id = 0;
    std::string name;
    std::vector<std::int32_t> values;
};
AJSON(FirstUse, id, name, values)

// Allocates by throwing something that is not a std::exception.
struct Refusal
{
    int code;
};
template <class T>
struct RefusingAllocator
{
    using value_type = T;
    RefusingAllocator() = default;
    template <class U>
    RefusingAllocator(const RefusingAllocator<U> &) {}
    T *allocate(std::size_t) { throw Refusal{7}; }
    void deallocate(T *, std::size_t) {}
    bool operator==(const RefusingAllocator &) const { return true; }
    bool operator!=(const RefusingAllocator &) const { return false; }
};
struct Refusing
{
    std::int32_t first = 0;
    std::vector<std::int32_t, RefusingAllocator<std::int32_t>> values;
};
AJSON(Refusing, first, values)

}  // namespace probe

// A record in the global namespace is found just as well.
struct GlobalRecord
{
    std::string key;
};
AJSON(GlobalRecord, key)

namespace {

QString describe(const probe::Child &c)
{
    QStringList parts;
    if (c.n != 0)
        parts << QStringLiteral("n=%1").arg(c.n);
    if (!c.name.empty())
        parts << QStringLiteral("name=") + QString::fromStdString(c.name);
    return QLatin1Char('{') + parts.join(QLatin1Char(' ')) + QLatin1Char('}');
}

// The members that differ from their defaults, in declaration order; independent of the
// writer so that reading is checked on its own.
QString describe(const probe::Probe &p)
{
    QStringList parts;
    if (!p.s.empty())
        parts << QStringLiteral("s=") + QString::fromStdString(p.s);
    if (p.b)
        parts << QStringLiteral("b=true");
    if (p.i32 != 0)
        parts << QStringLiteral("i32=%1").arg(p.i32);
    if (p.i64 != 0)
        parts << QStringLiteral("i64=%1").arg(p.i64);
    if (p.u64 != 0)
        parts << QStringLiteral("u64=%1").arg(p.u64);
    if (p.u32 != 0)
        parts << QStringLiteral("u32=%1").arg(p.u32);
    if (p.d != 0.0)
        parts << QStringLiteral("d=%1").arg(p.d, 0, 'g', 17);
    if (p.child.n != 0 || !p.child.name.empty())
        parts << QStringLiteral("child=") + describe(p.child);
    auto list = [&parts](const char *name, const auto &v, auto show) {
        if (v.empty())
            return;
        QStringList items;
        for (const auto &e : v)
            items << show(e);
        parts << QLatin1String(name) + QStringLiteral("=[") + items.join(QLatin1Char(','))
                + QLatin1Char(']');
    };
    list("ints", p.ints, [](std::int32_t i) { return QString::number(i); });
    list("strs", p.strs, [](const std::string &s) { return QString::fromStdString(s); });
    list("kids", p.kids, [](const probe::Child &c) { return describe(c); });
    return parts.join(QLatin1Char(' '));
}

template <class T>
std::string written(const T &record)
{
    ajson::string_stream out;
    ajson::save_to(out, record);
    return out.str();
}

// The text with a blank after every `{`, `,` and `:` outside strings: compact text in
// declaration order is read a faster way, and both ways must agree.
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

template <class T>
QString errorOf(T &record, const char *text, std::size_t length)
{
    try {
        ajson::load_from_buff(record, text, length);
    } catch (const ajson::exception &e) {
        return QString::fromUtf8(e.what());
    }
    return QStringLiteral("<no error>");
}

template <class T>
QString errorOf(T &record, const QByteArray &text)
{
    return errorOf(record, text.constData(), static_cast<std::size_t>(text.size()));
}

QString expectedError(int line, int col, const char *message)
{
    return QStringLiteral("error at line :%1 col :%2 msg:%3")
            .arg(line)
            .arg(col)
            .arg(QLatin1String(message));
}

struct LogRecord
{
    QtMsgType type;
    QString category, file, function, message;
};

// Collects the Qt log records written while it lives, from any thread.
class LogCapture
{
public:
    LogCapture()
    {
        QMutexLocker lock(&mutex);
        records_.clear();
        previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &message) {
            QMutexLocker lock(&mutex);
            records_.append({type, QString::fromUtf8(context.category), QString::fromUtf8(context.file),
                             QString::fromUtf8(context.function), message});
        });
    }
    ~LogCapture() { qInstallMessageHandler(previous); }
    QList<LogRecord> records() const
    {
        QMutexLocker lock(&mutex);
        return records_;
    }

private:
    static inline QMutex mutex;
    static inline QList<LogRecord> records_;
    QtMessageHandler previous;
};

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

}  // namespace

class TestAjson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readRules_data();
    void readRules();
    void lengthLimit_data();
    void lengthLimit();
    void fieldList();
    void wideRecord();
    void errors_data();
    void errors();
    void depthLimit_data();
    void depthLimit();
    void recursiveRecordDepth();
    void unescape_data();
    void unescape();
    void escapeOnWrite_data();
    void escapeOnWrite();
    void writerExact();
    void writerStreams();
    void roundTrip();
    void textMembers_data();
    void textMembers();
    void doubleRoundTrip_data();
    void doubleRoundTrip();
    void files();
    void nothrowLogs();
    void nothrowPassesForeignExceptions();
    void concurrentFirstUse();
};

void TestAjson::readRules_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("expected");

    auto row = [](const char *name, const char *before, const char *text, const char *expected) {
        QTest::newRow(name) << QByteArray(before) << QByteArray(text) << QString::fromUtf8(expected);
    };

    // Plain shapes.
    row("empty object", "", "{}", "");
    row("every kind", "",
        R"({"s":"abc","b":true,"i32":-7,"i64":-9000000000,"u64":42,"u32":7,"d":2.5,"child":{"n":3,"name":"c"},)"
        R"("ints":[1,2],"strs":["x","y"],"kids":[{"n":1},{"name":"k"}]})",
        "s=abc b=true i32=-7 i64=-9000000000 u64=42 u32=7 d=2.5 child={n=3 name=c} ints=[1,2] strs=[x,y] "
        "kids=[{n=1},{name=k}]");
    row("order does not matter", "", R"({"kids":[{"n":2}],"s":"z","i32":3})", "s=z i32=3 kids=[{n=2}]");

    // Leniency the cloud and our own files rely on.
    row("commas between members are optional", "", R"({"i32":1 "s":"x""b":true})", "s=x b=true i32=1");
    row("trailing comma", "", R"({"i32":1,"s":"x",})", "s=x i32=1");
    row("blanks", "", "\t{\r\n \"i32\"\r\n:\n 5 \t}", "i32=5");
    row("line comments", "", "{// head\n\"i32\":// value\n5// tail\n}", "i32=5");
    row("block comments", "", "/**/{/* a */\"i32\"/* b */:/* two\nlines */5/***/}", "i32=5");
    row("bare word into string", "", R"({"s":abc})", "s=abc");
    row("bare word runs to blank or punctuation", "", R"({"s":a/b+c'd"e "i32":1})", "s=a/b+c'd\"e i32=1");
    row("bare true into string", "", R"({"s":true})", "s=true");
    row("escapes in a string", "", R"({"s":"a\"b\\c\/d"})", "s=a\"b\\c/d");

    // Numbers in strings.
    row("quoted 12 into int", "", R"({"i32":"12"})", "i32=12");
    row("quoted negative into int64", "", R"({"i64":"-34"})", "i64=-34");
    row("quoted max into uint64", "", R"({"u64":"18446744073709551615"})", "u64=18446744073709551615");
    row("quoted with blank and tail", "", R"({"i32":" 42abc"})", "i32=42");
    row("non-numeric text gives 0", R"({"i32":5,"u64":6})", R"({"i32":"abc","u64":x})", "");
    row("quoted -1 into uint64 wraps like strtoull", "", R"({"u64":"-1"})", "u64=18446744073709551615");
    row("quoted overflow saturates", "", R"({"i64":"99999999999999999999"})", "i64=9223372036854775807");
    row("TRUE into integers", "", R"({"i32":TRUE,"u64":"True"})", "i32=1 u64=1");
    row("quoted number into double", "", R"({"d":"3.25"})", "d=3.25");

    // Booleans.
    row("bool from quoted true", "", R"({"b":"true"})", "b=true");
    row("bool from bare TRUE", "", R"({"b":TRUE})", "b=true");
    row("bool from mixed case", "", R"({"b":"tRuE"})", "b=true");
    row("bool from other text", R"({"b":true})", R"({"b":"yes"})", "");
    row("bool from five bytes", R"({"b":true})", R"({"b":"true "})", "");
    row("bool from bare false", R"({"b":true})", R"({"b":false})", "");
    row("bool from non-zero integer", "", R"({"b":2})", "b=true");
    row("bool from zero", R"({"b":true})", R"({"b":0})", "");
    row("bool from fraction", "", R"({"b":0.5})", "b=true");
    row("bool from 0.0", R"({"b":true})", R"({"b":0.0})", "");

    // Numbers.
    row("-1.5 into signed gives -1", "", R"({"i32":-1.5,"i64":2.9})", "i32=-1 i64=2");
    row("float into unsigned", "", R"({"u64":9.3e18})", "u64=9300000000000000000");
    row("unsigned 2^63", "", R"({"u64":9223372036854775808})", "u64=9223372036854775808");
    row("unsigned maximum", "", R"({"u64":18446744073709551615})", "u64=18446744073709551615");
    row("int64 minimum", "", R"({"i64":-9223372036854775808})", "i64=-9223372036854775808");
    row("uint32 maximum", "", R"({"u32":4294967295})", "u32=4294967295");
    row("double from integer", "", R"({"d":-3})", "d=-3");
    row("double with exponent", "", R"({"d":-2.5e-3})", "d=-0.0025000000000000001");
    row("double with E+", "", R"({"d":1E+2})", "d=100");
    row("double from a 20-digit integer", "", R"({"d":-18446744073709551616})", "d=-1.8446744073709552e+19");
    row("number ends where its digits end", "", R"({"i32":12"s":"x"})", "s=x i32=12");

    // Unknown keys.
    row("unknown nested object with arrays is skipped",
        "", R"({"zz":{"a":[1,{"b":[2,3]},"x",[]],"c":{},"d":[{}]},"i32":4})",
        "i32=4");
    row("unknown scalars are skipped", "", R"({"w":abc,"x":"q\"","y":-1.5e3,"z":[],"i32":4})", "i32=4");
    row("keys compare exactly", "", R"({"I32":1,"i32 ":2,"i3":3,"i32x":5,"i32":4})", "i32=4");
    row("non-ASCII key", "", "{\"\xC3\xA9\":1,\"i32\":2}", "i32=2");

    // What reading leaves alone.
    row("absent keys keep their values", R"({"i32":5,"s":"keep"})", R"({"b":true})", "s=keep b=true i32=5");
    row("later duplicate wins", "", R"({"i32":1,"i32":2})", "i32=2");
    row("nested record is merged", R"({"child":{"n":1}})", R"({"child":{"name":"x"}})", "child={n=1 name=x}");
    row("text after the object is ignored", "", R"({"i32":1} trailing [)", "i32=1");

    // Arrays.
    row("null keeps a vector", R"({"ints":[1,2]})", R"({"ints":null})", "ints=[1,2]");
    row("null keeps vectors empty", "", R"({"ints":null,"kids":null})", "");
    row("array replaces the content", R"({"ints":[1,2]})", R"({"ints":[3]})", "ints=[3]");
    row("empty array empties", R"({"ints":[1,2]})", R"({"ints":[ ]})", "");
    row("array trailing comma", "", R"({"strs":["a","b",]})", "strs=[a,b]");
    row("array of records", "", R"({"kids":[{"n":1},{"n":2,"name":"b"}]})", "kids=[{n=1},{n=2 name=b}]");
    row("array elements convert like members", "", R"({"ints":["7",TRUE,-2.5],"strs":[w,"q"]})",
        "ints=[7,1,-2] strs=[w,q]");
}

void TestAjson::readRules()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, text);
    QFETCH(QString, expected);

    probe::Probe p;
    if (!before.isEmpty())
        ajson::load_from_buff(p, before.constData());
    try {
        ajson::load_from_buff(p, text.constData());
    } catch (const ajson::exception &e) {
        QFAIL(e.what());
    }
    QCOMPARE(describe(p), expected);
}

void TestAjson::lengthLimit_data()
{
    QTest::addColumn<QByteArray>("text"); // null: no text at all
    QTest::addColumn<int>("length");      // -1: none given, the text runs to its NUL
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("read");

    const QString keyError = expectedError(0, 8, "object key must be string");
    // The limit cuts the text: what lies beyond is never seen.
    QTest::newRow("number cut") << QByteArray(R"({"i32":1234})") << 8 << keyError << QStringLiteral("i32=1");
    QTest::newRow("string cut") << QByteArray(R"({"s":"abcdef"})") << 8
                                << expectedError(0, 8, "not a valid quote string!") << QString();
    QTest::newRow("second object unseen") << QByteArray(R"({"i32":12}{"i32":3})") << 10 << QString()
                                          << QStringLiteral("i32=12");
    // A NUL byte ends the text even when the length reaches beyond it.
    QTest::newRow("NUL before the end") << QByteArray("{\"i32\":5\0}", 10) << 10 << keyError << QStringLiteral("i32=5");
    QTest::newRow("no length") << QByteArray("{\"i32\":6}\0{", 11) << -1 << QString() << QStringLiteral("i32=6");
    const QString noObject = expectedError(0, 0, "read object must start with {!");
    QTest::newRow("no text") << QByteArray() << 0 << noObject << QString();
    QTest::newRow("no text, a length") << QByteArray() << 5 << noObject << QString();
}

void TestAjson::lengthLimit()
{
    QFETCH(QByteArray, text);
    QFETCH(int, length);
    QFETCH(QString, error);
    QFETCH(QString, read);

    probe::Probe p;
    const char *data = text.isNull() ? nullptr : text.constData();
    if (length < 0)
        ajson::load_from_buff(p, data);
    else
        QCOMPARE(errorOf(p, data, std::size_t(length)), error.isEmpty() ? QStringLiteral("<no error>") : error);
    QCOMPARE(describe(p), read);
}

void TestAjson::fieldList()
{
    // Names are trimmed of the blanks around them, and bound to members in list order.
    probe::Spaced s;
    ajson::load_from_buff(s, R"({"gamma":3,"beta":"b","alpha":"a","beta ":"x"})");
    QCOMPARE(s.alpha, std::string("a"));
    QCOMPARE(s.beta, std::string("b"));
    QCOMPARE(s.gamma, 3);
    QCOMPARE(written(s), std::string(R"({"alpha":"a","beta":"b","gamma":3})"));

    GlobalRecord g;
    ajson::load_from_buff(g, R"({"key":"v"})");
    QCOMPARE(g.key, std::string("v"));
    QCOMPARE(written(g), std::string(R"({"key":"v"})"));
}

void TestAjson::wideRecord()
{
    probe::Wide w;
    ajson::load_from_buff(w, R"({"m127":127,"m0":1,"m64":64,"m100":100})");
    QCOMPARE(w.m127, 127);
    QCOMPARE(w.m0, 1);
    QCOMPARE(w.m64, 64);
    QCOMPARE(w.m100, 100);
    QCOMPARE(w.m99, 0);
    QCOMPARE(w.m101, 0);

    const QByteArray out = QByteArray::fromStdString(written(w));
    QVERIFY(out.startsWith(R"({"m0":1,"m1":0,)"));
    QVERIFY(out.contains(R"(,"m63":0,"m64":64,"m65":0,)"));
    QVERIFY(out.endsWith(R"(,"m126":0,"m127":127})"));
    // Keys: ten of 5 bytes, ninety of 6, twenty-eight of 7; values: 128 digits plus 1+2+2 for
    // 64, 100 and 127; 127 commas and the two braces.
    QCOMPARE(out.size(), 10 * 5 + 90 * 6 + 28 * 7 + 128 + 5 + 127 + 2);
}

void TestAjson::errors_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("line");
    QTest::addColumn<int>("col");
    QTest::addColumn<QString>("message");

    auto row = [](const char *name, const QByteArray &text, int line, int col, const char *msg) {
        QTest::newRow(name) << text << line << col << QString::fromLatin1(msg);
    };
    const char *notObject = "read object must start with {!";
    const char *keyNotString = "object key must be string";
    const char *invalid = "invalid json document!";
    const char *notString = "not a valid string.";
    const char *notQuote = "not a valid quote string!";
    const char *notSigned = "not a valid signed integral like number.";
    const char *notArray = "array must start with [.";
    const char *noArray = "no valid array!";
    const char *notNumber = "not a valid number!";
    const char *notComment = "not a comment!";

    // The top level.
    row("empty text", "", 0, 0, notObject);
    row("only blanks", "  \n ", 1, 1, notObject);
    row("only a comment", "// nothing", 0, 10, notObject);
    row("top-level array", "[1]", 0, 1, notObject);
    row("top-level string", R"("a")", 0, 3, notObject);

    // Members.
    row("single-quoted key", R"({'a':1})", 0, 4, keyNotString);
    row("number as key", R"({1:2})", 0, 2, keyNotString);
    row("missing colon", R"({"a" 1})", 0, 6, invalid);
    row("missing value", R"({"x":})", 0, 6, invalid);
    row("colon as value", R"({"x"::1})", 0, 6, invalid);
    row("end after a value", R"({"i32":1)", 0, 8, keyNotString);
    row("value without key", R"({"i32":1 2})", 0, 10, keyNotString);

    // Strings.
    row("number into string", R"({"s":1})", 0, 6, notString);
    row("object into string", R"({"s":{}})", 0, 6, notString);
    row("unknown escape", R"({"s":"a\qb"})", 0, 11, notString);
    row("escaped NUL", R"({"s":"\u0000"})", 0, 13, notString);
    row("short \\u", R"({"s":"\u12"})", 0, 11, notString);
    row("non-hex \\u", R"({"s":"\u12G4"})", 0, 13, notString);
    row("capital U", R"({"s":"\U0041"})", 0, 13, notString);
    row("raw LF in string", "{\"s\":\"ab\ncd\"}", 0, 8, notQuote);
    row("NUL in string", QByteArray("{\"s\":\"ab\0cd\"}", 13), 0, 8, notQuote);
    row("unterminated string", R"({"s":"abc)", 0, 9, notQuote);
    row("backslash at the end", R"({"s":"ab\)", 0, 9, notQuote);
    row("escaped LF counts as a line", "{\"s\":\"a\\\nb\"}", 1, 2, notString);

    // Scalars.
    row("bool from array", R"({"b":[1]})", 0, 6, "not a valid bool.");
    row("bool from end", R"({"b":)", 0, 5, "not a valid bool.");
    row("signed from object", R"({"i32":{}})", 0, 8, notSigned);
    row("signed from end", R"({"i64":)", 0, 7, notSigned);
    row("unsigned from -1", R"({"u64":-1})", 0, 9,
        "assign a negative signed integral to unsigned integral number.");
    row("unsigned from -0", R"({"u32":-0})", 0, 9,
        "assign a negative signed integral to unsigned integral number.");
    row("unsigned from -1.5", R"({"u64":-1.5})", 0, 11,
        "assign a negative float point to unsigned integral number.");
    row("unsigned from array", R"({"u64":[]})", 0, 8,
        "not a valid unsigned integral like number.");
    row("double from array", R"({"d":[]})", 0, 6, "not a valid float point number.");

    // Arrays and nested records.
    row("vector from object", R"({"ints":{}})", 0, 9, notArray);
    row("vector from number", R"({"ints":5})", 0, 9, notArray);
    row("vector from Null", R"({"ints":Null})", 0, 12, notArray);
    row("array without commas", R"({"ints":[1 2]})", 0, 12, noArray);
    row("unclosed array", R"({"ints":[1)", 0, 10, noArray);
    row("colon in array", R"({"ints":[1:2]})", 0, 11, noArray);
    row("record from string", R"({"child":"x"})", 0, 12, notObject);
    row("record from null", R"({"child":null})", 0, 13, notObject);
    row("record in an array", R"({"kids":[{"n":[]}]})", 0, 15, notSigned);

    // Numbers and comments.
    row("second dot", R"({"d":1.2.3})", 0, 8, notNumber);
    row("exponent without digits", R"({"d":1e})", 0, 7, notNumber);
    row("exponent sign without digits", R"({"d":1e+})", 0, 8, notNumber);
    row("dot after exponent", R"({"d":1e5.0})", 0, 8, notNumber);
    row("slash without comment", R"({/x})", 0, 2, notComment);
    row("slash at the end", R"({"i32":1/)", 0, 9, notComment);

    // Counting lines and columns.
    row("several lines", "{\n  \"i32\": 1,\n  \"s\": 2\n}", 2, 8, notString);
    row("CR before LF", "{\r\n\"s\":\r\n  [1]}", 2, 3, notString);
    row("CR inside a line", "{\"s\"\r:\r[", 0, 6, notString);
    row("block comment over lines", "{/*\n\n*/ \"s\":{", 2, 8, notString);
    row("line comment", "{// c\n\"s\":[", 1, 5, notString);
    row("columns count bytes", "{\"\xC3\xA9\" 1}", 0, 7, invalid);

    // Skipped values follow the same grammar.
    row("skipped array without commas", R"({"zz":[1 2]})", 0, 10, noArray);
    row("skipped object with bare key", R"({"zz":{a:1}})", 0, 8, keyNotString);
    row("skipped object without colon", R"({"zz":{"a" 1}})", 0, 12, invalid);
    row("skipped object runs out", R"({"zz":{"a":1)", 0, 12, keyNotString);
    row("skipped string runs out", R"({"zz":"a)", 0, 8, notQuote);
    row("skipped closing bracket", R"({"zz":]})", 0, 7, invalid);
    row("line after a skipped escaped LF", "{\"zz\":\"a\\\nb\",\"i32\":[", 1, 10, notSigned);
}

void TestAjson::errors()
{
    QFETCH(QByteArray, text);
    QFETCH(int, line);
    QFETCH(int, col);
    QFETCH(QString, message);

    probe::Probe p;
    QCOMPARE(errorOf(p, text), expectedError(line, col, message.toLatin1().constData()));
}

void TestAjson::depthLimit_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("expected");

    const QString tooDeep = QStringLiteral("invalid json document!");
    // The outer object is the first level; 999 more brackets still read.
    QTest::newRow("999 nested arrays")
            << QByteArray("{\"x\":") + QByteArray(999, '[') + QByteArray(999, ']')
                    + QByteArray(",\"i32\":1}")
            << QStringLiteral("i32=1");
    QTest::newRow("1000 nested arrays")
            << QByteArray("{\"x\":") + QByteArray(1000, '[') + QByteArray(1000, ']') + "}"
            << expectedError(0, 5 + 1000, "invalid json document!");
    QTest::newRow("100000 nested arrays") << QByteArray("{\"x\":") + QByteArray(100000, '[')
                                          << expectedError(0, 1005, "invalid json document!");
    // Each level is `{"a":`, five bytes; the 1000th inner `{` is refused right after it is read.
    // On the mixed lines a level is `[{"a":`, six bytes, and the 1000th bracket is the `{` of
    // the 500th level.
    QTest::newRow("100000 nested objects")
            << QByteArray("{\"x\":") + QByteArray("{\"a\":").repeated(100000)
            << expectedError(0, 5 + 999 * 5 + 1, "invalid json document!");
    QTest::newRow("mixed nesting on lines")
            << QByteArray("{\"x\":\n") + QByteArray("[{\"a\":").repeated(50000)
            << expectedError(1, 499 * 6 + 2, "invalid json document!");
}

void TestAjson::depthLimit()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, expected);

    probe::Probe p;
    try {
        ajson::load_from_buff(p, text.constData(), static_cast<std::size_t>(text.size()));
        QCOMPARE(describe(p), expected);
    } catch (const ajson::exception &e) {
        QCOMPARE(QString::fromUtf8(e.what()), expected);
    }
}

void TestAjson::recursiveRecordDepth()
{
    // 500 levels of `{"kids":[` open 1000 brackets: the deepest that is accepted.
    {
        const QByteArray text = QByteArray("{\"kids\":[").repeated(500) + QByteArray("]}").repeated(500);
        probe::Node root;
        ajson::load_from_buff(root, text.constData(), static_cast<std::size_t>(text.size()));
        int levels = 0;
        for (const probe::Node *n = &root; !n->kids.empty(); n = &n->kids.front())
            ++levels;
        QCOMPARE(levels, 499);
    }
    // Deeper, the 1001st bracket is the `{` that starts group 501: 500 groups of 9 bytes, plus it.
    {
        const QByteArray text = QByteArray("{\"kids\":[").repeated(100000);
        probe::Node root;
        QCOMPARE(errorOf(root, text), expectedError(0, 500 * 9 + 1, "invalid json document!"));
    }
}

void TestAjson::unescape_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("bytes");

    auto quoted = [](const char *inside) { return "{\"s\":\"" + QByteArray(inside) + "\"}"; };
    QTest::newRow("pairs") << quoted(R"(\"\\\/\b\f\n\r\t)") << QByteArray("\"\\/\b\f\n\r\t");
    QTest::newRow("U+0001") << quoted(R"(\u0001)") << QByteArray("\x01");
    QTest::newRow("U+0041") << quoted(R"(\u0041)") << QByteArray("A");
    QTest::newRow("U+007F") << quoted(R"(\u007F)") << QByteArray("\x7F");
    QTest::newRow("U+0080") << quoted(R"(\u0080)") << QByteArray("\xC2\x80");
    QTest::newRow("U+00E9 lower case") << quoted(R"(\u00e9)") << QByteArray("\xC3\xA9");
    QTest::newRow("U+00E9 upper case") << quoted(R"(\u00E9)") << QByteArray("\xC3\xA9");
    QTest::newRow("U+07FF") << quoted(R"(\u07FF)") << QByteArray("\xDF\xBF");
    QTest::newRow("U+0800") << quoted(R"(\u0800)") << QByteArray("\xE0\xA0\x80");
    QTest::newRow("U+20AC mixed case") << quoted(R"(\u20aC)") << QByteArray("\xE2\x82\xAC");
    QTest::newRow("U+FFFF") << quoted(R"(\uFFFF)") << QByteArray("\xEF\xBF\xBF");
    QTest::newRow("surrogates stay apart")
            << quoted(R"(\uD83D\uDE00)") << QByteArray("\xED\xA0\xBD\xED\xB8\x80");
    QTest::newRow("mixed") << quoted(R"(a\u00e9b\n)") << QByteArray("a\xC3\xA9" "b\n");
    QTest::newRow("raw UTF-8 passes") << quoted("\xC3\xA9\xF0\x9F\x98\x80")
                                      << QByteArray("\xC3\xA9\xF0\x9F\x98\x80");
    QTest::newRow("raw TAB passes") << quoted("a\tb") << QByteArray("a\tb");
    QTest::newRow("bare word") << QByteArray(R"({"s":a\u0041\tb})") << QByteArray("aA\tb");
}

void TestAjson::unescape()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, bytes);

    probe::Probe p;
    ajson::load_from_buff(p, text.constData());
    QCOMPARE(QByteArray::fromStdString(p.s), bytes);
}

void TestAjson::escapeOnWrite_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("readBack");

    auto row = [](const char *name, const QByteArray &bytes, const char *json,
                  const QByteArray &readBack) {
        QTest::newRow(name) << bytes << QByteArray(json) << readBack;
    };
    row("printable ASCII", "a b~/'", R"("a b~/'")", "a b~/'");
    row("U+00E9", "\xC3\xA9", R"("\u00E9")", "\xC3\xA9");
    row("U+20AC", "\xE2\x82\xAC", R"("\u20AC")", "\xE2\x82\xAC");
    // Above U+FFFF the two groups hold the upper and the lower 16 bits, and read back as two
    // separate characters.
    row("U+1F600", "\xF0\x9F\x98\x80", R"("\u0001\uF600")", "\x01\xEF\x98\x80");
    row("U+10FFFF", "\xF4\x8F\xBF\xBF", R"("\u0010\uFFFF")", "\x10\xEF\xBF\xBF");
    row("named controls", "\b\t\n\f\r", R"("\b\t\n\f\r")", "\b\t\n\f\r");
    row("other controls", "\x01\x1F\x7F", R"("\u0001\u001F\u007F")", "\x01\x1F\x7F");
    row("quote and backslash", "\"\\", R"("\"\\")", "\"\\");
    row("stops at NUL", QByteArray("a\0b", 3), R"("a")", "a");
    row("encoded surrogate", "\xED\xA0\x80", R"("\uD800")", "\xED\xA0\x80");
    // Bytes that start no valid sequence stand for themselves.
    row("invalid byte", "\xFF", R"("\u00FF")", "\xC3\xBF");
    row("stray continuation", "\x80" "a", R"("\u0080a")", "\xC2\x80" "a");
    row("truncated sequence", "\xC3" "A", R"("\u00C3A")", "\xC3\x83" "A");
    row("overlong NUL", "\xC0\x80", R"("\u00C0\u0080")", "\xC3\x80\xC2\x80");
    row("overlong three bytes", "\xE0\x80\xAF", R"("\u00E0\u0080\u00AF")",
        "\xC3\xA0\xC2\x80\xC2\xAF");
    row("above U+10FFFF", "\xF4\x90\x80\x80", R"("\u00F4\u0090\u0080\u0080")",
        "\xC3\xB4\xC2\x90\xC2\x80\xC2\x80");
}

void TestAjson::escapeOnWrite()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, readBack);

    probe::Spaced s;
    s.alpha = bytes.toStdString();
    const QByteArray expected = "{\"alpha\":" + json + ",\"beta\":\"\",\"gamma\":0}";
    QCOMPARE(QByteArray::fromStdString(written(s)), expected);

    probe::Spaced back;
    ajson::load_from_buff(back, expected.constData());
    QCOMPARE(QByteArray::fromStdString(back.alpha), readBack);
}

void TestAjson::writerExact()
{
    probe::Probe p;
    QCOMPARE(QByteArray::fromStdString(written(p)),
             QByteArray(R"({"s":"","b":false,"i32":0,"i64":0,"u64":0,"u32":0,"d":0,)"
                        R"("child":{"n":0,"name":""},"ints":[],"strs":[],"kids":[]})"));

    p.s = "a\"b";
    p.b = true;
    p.i32 = std::numeric_limits<std::int32_t>::min();
    p.i64 = -9000000000;
    p.u64 = std::numeric_limits<std::uint64_t>::max();
    p.u32 = 4000000000u;
    p.d = 2.5;
    p.child = {3, "c"};
    p.ints = {1, -2};
    p.strs = {"x", ""};
    p.kids = {{1, ""}, {0, "k"}};
    QCOMPARE(QByteArray::fromStdString(written(p)),
             QByteArray(R"({"s":"a\"b","b":true,"i32":-2147483648,"i64":-9000000000,)"
                        R"("u64":18446744073709551615,"u32":4000000000,"d":2.5,)"
                        R"("child":{"n":3,"name":"c"},"ints":[1,-2],"strs":["x",""],)"
                        R"("kids":[{"n":1,"name":""},{"n":0,"name":"k"}]})"));
}

void TestAjson::writerStreams()
{
    probe::Probe p;
    p.s = "\xC3\xA9";
    p.kids = {{1, "one"}};
    // Any stream with write() and put() takes the same text.
    std::ostringstream os;
    ajson::save_to(os, p);
    QCOMPARE(os.str(), written(p));
    QVERIFY(os.str().rfind(R"({"s":"\u00E9",)", 0) == 0);

    // A string_stream appends: two records in a row.
    ajson::string_stream ss;
    probe::Child c{5, "x"};
    ajson::save_to(ss, c);
    ajson::save_to(ss, c);
    QCOMPARE(ss.str(), std::string(R"({"n":5,"name":"x"}{"n":5,"name":"x"})"));
}

void TestAjson::roundTrip()
{
    probe::Probe p;
    p.s = "line\nnext \"quoted\" \\ / \xE2\x82\xAC \x01";
    p.b = true;
    p.i32 = -1;
    p.i64 = std::numeric_limits<std::int64_t>::min();
    p.u64 = std::numeric_limits<std::uint64_t>::max();
    p.u32 = std::numeric_limits<std::uint32_t>::max();
    p.d = -1.0 / 3.0;
    p.child = {std::numeric_limits<std::int32_t>::max(), "\xC3\xA9t\xC3\xA9"};
    p.ints = {0, -1, 2147483647};
    p.strs = {"", "\t", "\xE4\xB8\xAD"};
    p.kids = {{}, {-5, "five"}};

    const std::string first = written(p);
    probe::Probe back;
    ajson::load_from_buff(back, first.c_str(), first.size());
    QCOMPARE(describe(back), describe(p));
    QCOMPARE(back.d, p.d);
    QCOMPARE(written(back), first);

    const std::string spaced = spacedOut(first);
    QVERIFY(spaced.size() > first.size());
    probe::Probe general;
    ajson::load_from_buff(general, spaced.c_str(), spaced.size());
    QCOMPARE(written(general), first);
}

void TestAjson::textMembers_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("size");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("error");

    // written: what the writer puts between the quotes of "size".
    auto row = [](const char *name, const char *text, const QByteArray &size, const char *written) {
        QTest::newRow(name) << QByteArray(text) << size
                            << QByteArray(R"({"size":")") + written + R"(","status":""})" << QString();
    };
    row("quoted number", R"({"size":"1080"})", "1080", "1080");
    row("number", R"({"size":1080})", "1080", "1080");
    row("number kept as written", R"({"size":-1.50e3})", "-1.50e3", "-1.50e3");
    row("bare word", R"({"size":abc})", "abc", "abc");
    row("escapes resolved", R"({"size":"a\u00e9"})", "a\xC3\xA9", R"(a\u00E9)");
    QTest::newRow("array") << QByteArray(R"({"size":[1]})") << QByteArray() << QByteArray()
                           << expectedError(0, 9, "not a valid string.");
}

void TestAjson::textMembers()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, size);
    QFETCH(QByteArray, json);
    QFETCH(QString, error);

    probe::Loose loose;
    if (!error.isEmpty()) {
        QCOMPARE(errorOf(loose, text), error);
        return;
    }
    ajson::load_from_buff(loose, text.constData());
    QCOMPARE(QByteArray::fromStdString(loose.size), size);
    // Used where a std::string is expected.
    const std::string &plain = loose.size;
    QCOMPARE(plain.size(), static_cast<std::size_t>(size.size()));
    QCOMPARE(QByteArray::fromStdString(written(loose)), json);
}

void TestAjson::doubleRoundTrip_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("0.1") << 0.1 << QByteArray("0.1");
    QTest::newRow("2.5") << 2.5 << QByteArray("2.5");
    QTest::newRow("integral") << 42.0 << QByteArray("42");
    QTest::newRow("third") << 1.0 / 3.0 << QByteArray("0.3333333333333333");
    QTest::newRow("large") << 1e300 << QByteArray("1e+300");
    QTest::newRow("2^64") << 18446744073709551616.0 << QByteArray("18446744073709551616");
    QTest::newRow("largest") << std::numeric_limits<double>::max()
                             << QByteArray("1.7976931348623157e+308");
    QTest::newRow("smallest subnormal") << std::numeric_limits<double>::denorm_min()
                                        << QByteArray("5e-324");
    QTest::newRow("negative zero") << -0.0 << QByteArray("-0");
    QTest::newRow("infinity") << std::numeric_limits<double>::infinity() << QByteArray("\"inf\"");
    QTest::newRow("minus infinity") << -std::numeric_limits<double>::infinity()
                                    << QByteArray("\"-inf\"");
    QTest::newRow("NaN") << std::numeric_limits<double>::quiet_NaN() << QByteArray("\"nan\"");
}

void TestAjson::doubleRoundTrip()
{
    QFETCH(double, value);
    QFETCH(QByteArray, text);

    probe::Probe p;
    p.d = value;
    const QByteArray out = QByteArray::fromStdString(written(p));
    QVERIFY2(out.contains(",\"d\":" + text + ",\"child\""), out.constData());

    probe::Probe back;
    back.d = 12345.0;
    ajson::load_from_buff(back, out.constData());
    if (std::isnan(value)) {
        QVERIFY(std::isnan(back.d));
    } else {
        QCOMPARE(std::memcmp(&back.d, &value, sizeof value), 0);
    }
}

void TestAjson::files()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());

    // A byte-order mark is skipped and does not count for positions.
    const QString bom = dir.filePath(QStringLiteral("bom.json"));
    QVERIFY(writeFile(bom, QByteArray("\xEF\xBB\xBF{\"i32\":7}")));
    probe::Probe p;
    ajson::load_from_file(p, bom.toLocal8Bit().constData());
    QCOMPARE(p.i32, 7);

    // Positions and the shortest files: the errors come from reading, not from opening.
    const struct
    {
        QByteArray bytes;
        int col;
        const char *message;
    } bad[] = {{"\xEF\xBB\xBF{\"s\":1}", 6, "not a valid string."},
               {"\xEF\xBB", 2, "read object must start with {!"}, // shorter than a mark: read as it is
               {"", 0, "read object must start with {!"}};
    for (const auto &b : bad) {
        const QString path = dir.filePath(QStringLiteral("bad.json"));
        QVERIFY(writeFile(path, b.bytes));
        try {
            ajson::load_from_file(p, path.toLocal8Bit().constData());
            QFAIL("no error");
        } catch (const ajson::exception &e) {
            QCOMPARE(QString::fromUtf8(e.what()), expectedError(0, b.col, b.message));
        }
    }

    // A missing file is a logic_error, not a parse error.
    const QByteArray missing = dir.filePath(QStringLiteral("missing.json")).toLocal8Bit();
    try {
        ajson::load_from_file(p, missing.constData());
        QFAIL("no error");
    } catch (const ajson::exception &) {
        QFAIL("a missing file reported as a parse error");
    } catch (const std::logic_error &e) {
        QCOMPARE(QByteArray(e.what()), "can't open file:" + missing);
    }
    QCOMPARE(p.i32, 7);

    // save_to_file writes exactly what save_to produces, and it reads back.
    p.s = "\xC3\xA9";
    p.kids = {{2, "two"}};
    const QString saved = dir.filePath(QStringLiteral("saved.json"));
    ajson::save_to_file(p, saved.toLocal8Bit().constData());
    QFile f(saved);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll(), QByteArray::fromStdString(written(p)));
    probe::Probe back;
    ajson::load_from_file(back, saved.toLocal8Bit().constData());
    QCOMPARE(describe(back), describe(p));

    const QByteArray intoDirectory = dir.path().toLocal8Bit();
    try {
        ajson::save_to_file(p, intoDirectory.constData());
        QFAIL("no error");
    } catch (const std::logic_error &e) {
        QCOMPARE(QByteArray(e.what()), "can't open file:" + intoDirectory);
    }
}

// What was read before an error stays, the rest keeps its value; the error is logged once,
// as info in rxcm.json, and a good text logs nothing.
void TestAjson::nothrowLogs()
{
    LogCapture capture;
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    probe::Probe p;
    p.u32 = 9;
    ajson::load_from_buff_nothrow(p, R"({"i32":5,"s":"x","b":[],"u32":1})");
    QCOMPARE(describe(p), QStringLiteral("s=x i32=5 u32=9"));
    // The explicit length is passed on: the number is cut at the limit.
    const char text[] = R"({"i32":61})";
    ajson::load_from_buff_nothrow(p, text, 8);
    QCOMPARE(p.i32, 6);
    ajson::load_from_buff_nothrow(p, text);
    QCOMPARE(p.i32, 61);

    const QByteArray missing = dir.filePath(QStringLiteral("nothing.json")).toLocal8Bit();
    ajson::load_from_file_nothrow(p, missing.constData());
    QCOMPARE(p.i32, 61);
    const QString bad = dir.filePath(QStringLiteral("bad.json"));
    QVERIFY(writeFile(bad, QByteArray("{\"i32\":4,\n\"ints\":{}}")));
    ajson::load_from_file_nothrow(p, bad.toLocal8Bit().constData());
    QCOMPARE(p.i32, 4);

    const QString buff = QStringLiteral("load from buff throw exception: e.what() is:{} ");
    const QString file = QStringLiteral("load from file throw exception: e.what() is: ");
    const QStringList expected{buff + expectedError(0, 22, "not a valid bool."),
                               buff + expectedError(0, 8, "object key must be string"),
                               file + QStringLiteral("can't open file:") + QString::fromLocal8Bit(missing),
                               file + expectedError(1, 8, "array must start with [.")};
    const QList<LogRecord> records = capture.records();
    QCOMPARE(records.size(), expected.size());
    for (int i = 0; i < records.size(); ++i) {
        const LogRecord &r = records.at(i);
        QCOMPARE(r.message, expected.at(i));
        QCOMPARE(r.type, QtInfoMsg);
        QCOMPARE(r.category, QStringLiteral("rxcm.json"));
        QCOMPARE(r.file, QStringLiteral("cloudmaterial/ajsonex"));
        QVERIFY2(r.function.contains(QLatin1String(i < 2 ? "load_from_buff_nothrow" : "load_from_file_nothrow")),
                 qPrintable(r.function));
        QVERIFY2(r.function.contains(QLatin1String("probe::Probe")), qPrintable(r.function));
    }

    // The category's filter is obeyed.
    QLoggingCategory::setFilterRules(QStringLiteral("rxcm.json.info=false"));
    ajson::load_from_buff_nothrow(p, "[]");
    QLoggingCategory::setFilterRules(QString());
    QCOMPARE(capture.records().size(), expected.size());
    ajson::load_from_buff_nothrow(p, "[]");
    QCOMPARE(capture.records().size(), expected.size() + 1);
}

void TestAjson::nothrowPassesForeignExceptions()
{
    LogCapture capture;
    probe::Refusing r;
    try {
        ajson::load_from_buff_nothrow(r, R"({"first":1,"values":[1]})");
        QFAIL("the allocator's exception was swallowed");
    } catch (const probe::Refusal &refusal) {
        QCOMPARE(refusal.code, 7);
    }
    QCOMPARE(r.first, 1);
    QCOMPARE(capture.records().size(), 0);
}

void TestAjson::concurrentFirstUse()
{
    const unsigned before = ajson::detail::name_tables_built().load();
    constexpr int threadCount = 8;
    constexpr int rounds = 200;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (!go.load())
                std::this_thread::yield();
            for (int k = 0; k < rounds; ++k) {
                const std::string text = "{\"values\":[" + std::to_string(t) + ","
                        + std::to_string(k) + "],\"name\":\"t" + std::to_string(t) + "\",\"id\":"
                        + std::to_string(t * 1000 + k) + "}";
                probe::FirstUse rec;
                ajson::load_from_buff(rec, text.c_str(), text.size());
                const std::string expected = "{\"id\":" + std::to_string(t * 1000 + k)
                        + ",\"name\":\"t" + std::to_string(t) + "\",\"values\":["
                        + std::to_string(t) + "," + std::to_string(k) + "]}";
                if (rec.id != t * 1000 + k || rec.name != "t" + std::to_string(t)
                    || rec.values != std::vector<std::int32_t>{t, k} || written(rec) != expected)
                    ++failures;
            }
        });
    }
    while (ready.load() < threadCount)
        std::this_thread::yield();
    go = true;
    for (std::thread &th : threads)
        th.join();
    QCOMPARE(failures.load(), 0);
    QCOMPARE(ajson::detail::name_tables_built().load(), before + 1);
}

QTEST_GUILESS_MAIN(TestAjson)

#include "tst_ajson.moc"
