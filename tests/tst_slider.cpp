// The slider check end to end: the page in a real web view under Xvfb, driven with pointer
// events, its result arriving through the web channel and accepted by the local cloud.

#include "cloudmaterial/login/jsmessage.h"
#include "cloudmaterial/login/logindlalog.h"
#include "cloudmaterial/login/loginverify.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "localcloud/cloudsim.h"
#include "support/cloudclient.h"

#include <QtTest>

#include <QDir>
#include <QEventLoop>
#include <QJsonObject>
#include <QProcess>
#include <QTimer>
#include <QVBoxLayout>
#include <QWebEnginePage>
#include <QWebEngineView>

#include <functional>
#include <memory>
#include <optional>

using talvor::cloudmaterial::LoginDlalog;
using talvor::cloudmaterial::LoginVerify;

using talvor::cloudmaterial::VerifyCodeSlider;

namespace {

// QTest::qWait() and the QTRY macros sleep between rounds of events, which starves the web
// engine's message pump, so this suite waits in a real event loop.
bool spinUntil(const std::function<bool()> &done, int timeout = 30000)
{
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done())
            loop.quit();
    });
    QTimer::singleShot(timeout, &loop, &QEventLoop::quit);
    poll.start(5);
    if (!done())
        loop.exec();
    return done();
}

// Waits for @p actual to become @p expected, then compares them (reporting both if not).
#define SPIN_COMPARE(actual, expected)                                                                                 \
    do {                                                                                                               \
        spinUntil([&] { return (actual) == (expected); });                                                             \
        QCOMPARE(actual, expected);                                                                                    \
    } while (false)

QVariant evaluate(QWebEngineView *view, const QString &script)
{
    auto result = std::make_shared<std::optional<QVariant>>();
    view->page()->runJavaScript(script, [result](const QVariant &value) { *result = value; });
    spinUntil([&] { return result->has_value(); }, 20000);
    return result->value_or(QVariant(QStringLiteral("<no answer from the page>")));
}

// Presses the handle, moves it in steps to @p fraction of the track (past the end for 1.0)
// and lets go. Returns the track's travel in px.
QString dragScript(double fraction)
{
    return QStringLiteral(R"((function (fraction) {
        var handle = document.getElementById('handle'), slider = document.getElementById('slider');
        var box = handle.getBoundingClientRect();
        var x = Math.round(box.left + box.width / 2), y = Math.round(box.top + box.height / 2);
        var travel = slider.clientWidth - handle.offsetWidth;
        var end = Math.round(x + travel * fraction + (fraction >= 1 ? 12 : 0));
        function fire(type, clientX) {
            handle.dispatchEvent(new PointerEvent(type, {
                bubbles: true, cancelable: true, pointerId: 7, pointerType: 'mouse', isPrimary: true,
                button: type === 'pointermove' ? -1 : 0, buttons: type === 'pointerup' ? 0 : 1,
                clientX: clientX, clientY: y }));
        }
        fire('pointerdown', x);
        for (var i = 1; i <= 12; ++i)
            fire('pointermove', Math.round(x + (end - x) * i / 12));
        fire('pointerup', end);
        return travel;
    })(%1))")
        .arg(fraction);
}

const QString labelText = QStringLiteral("document.getElementById('label').textContent");

// A stand-in for a login dialog holding one slider view.
std::unique_ptr<QWidget> hostFor(QWebEngineView *view)
{
    auto host = std::make_unique<QWidget>();
    auto *layout = new QVBoxLayout(host.get());
    view->setFixedSize(320, 40);
    layout->addWidget(view);
    host->show();
    return host;
}

bool waitUntilReady(QWebEngineView *view)
{
    return spinUntil([&] {
        return evaluate(view, QStringLiteral("!!(window.myObject && document.getElementById('handle'))")).toBool();
    });
}

void saveScreenshot(QWidget *widget, const char *name)
{
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/../screenshots");
    QDir().mkpath(folder);
    QVERIFY(widget->grab().save(folder + QLatin1Char('/') + QLatin1String(name)));
}

} // namespace

class TestSlider : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void dragDeliversWhatTheCloudAccepts();
    void resultsAreLoggedAndStored();
    void languageReachesEveryPage_data();
    void languageReachesEveryPage();
    void pagesGoBeforeTheProfile();
};

void TestSlider::dragDeliversWhatTheCloudAccepts()
{
    CloudSim cloud;
    QVERIFY(cloud.start(R"({"accounts":[{"token":"tok-1","name":"alice","password":"pw"}]})"));
    CloudClient client(cloud);
    const auto accepted = [&](const QString &sessionId, const QString &sig, const QString &token) {
        const QJsonObject body{{"flag", 0},          {"key", "slider-key"},    {"parameter", ""},
                               {"phone", ""},        {"sessionId", sessionId}, {"sig", sig},
                               {"templateCode", ""}, {"token", token},         {"type", ""}};
        return client.post(QStringLiteral("v1/web-backend-service/identity-verify-code/slider"), body)
            .json()
            .value("status")
            .toBool();
    };

    VerifyCodeSlider slider;
    JSMessage *message = slider.message(VerifyCodeSlider::AccountLogin);
    QSignalSpy otherPlace(slider.message(VerifyCodeSlider::CodeLogin), &JSMessage::signalJSGetSuccess);
    QString previousSession;
    for (int dialogRound = 0; dialogRound < 2; ++dialogRound) {
        // The first dialog goes with its view; the next one gets a fresh view on the same set.
        QWebEngineView *view = slider.view(VerifyCodeSlider::AccountLogin);
        const auto host = hostFor(view);
        QVERIFY(message->sessionId().isEmpty() && message->sig().isEmpty() && message->token().isEmpty());
        QSignalSpy delivered(message, &JSMessage::signalJSGetSuccess);
        QVERIFY(waitUntilReady(view));

        // Short of the end: the handle springs back and nothing is delivered.
        QVERIFY(evaluate(view, dragScript(0.95)).toInt() > 100);
        SPIN_COMPARE(evaluate(view,
                              QStringLiteral("Math.round(new DOMMatrix(getComputedStyle("
                                             "document.getElementById('handle')).transform).m41)"))
                         .toInt(),
                     0);
        QCOMPARE(delivered.count(), 0);

        evaluate(view, dragScript(1.0));
        SPIN_COMPARE(delivered.count(), 1);
        const QString sessionId = message->sessionId(), sig = message->sig(), token = message->token();
        QVERIFY(!sessionId.isEmpty() && !sig.isEmpty() && !token.isEmpty());
        QVERIFY(sessionId != previousSession);
        previousSession = sessionId;
        QVERIFY(accepted(sessionId, sig, token));
        QString forged = sig;
        forged[0] = forged.at(0) == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
        QVERIFY(!accepted(sessionId, forged, token));

        // Verified: a further drag delivers nothing new.
        QCOMPARE(
            evaluate(view, QStringLiteral("document.getElementById('slider').classList.contains('verified')")).toBool(),
            true);
        if (dialogRound == 0)
            saveScreenshot(host.get(), "slider-after.png");
        evaluate(view, dragScript(1.0));
        evaluate(view, QStringLiteral("0")); // one more round trip for anything queued
        QCOMPARE(delivered.count(), 1);
    }
    QCOMPARE(otherPlace.count(), 0);
}

void TestSlider::resultsAreLoggedAndStored()
{
    JSMessage message;
    QSignalSpy delivered(&message, &JSMessage::signalJSGetSuccess);
    QTest::ignoreMessage(QtDebugMsg, R"(Received from JavaScript: "s-2"     "g \"2\""      "")");
    message.slotJSMsg(QStringLiteral("s-2"), QStringLiteral("g \"2\""), QString());
    QCOMPARE(delivered.count(), 1);
    QCOMPARE(QStringList({message.sessionId(), message.sig(), message.token()}), QStringList({"s-2", "g \"2\"", ""}));
}

void TestSlider::languageReachesEveryPage_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("dragText");
    QTest::newRow("cn") << "cn" << QStringLiteral("请按住滑块，拖动到最右边");
    QTest::newRow("tw") << "tw" << QStringLiteral("請按住滑塊，拖動到最右邊");
    QTest::newRow("en") << "en" << QStringLiteral("Drag the slider to the right");
    QTest::newRow("ko_KR") << "ko_KR" << QStringLiteral("슬라이더를 오른쪽 끝까지 끌어 주세요");
    QTest::newRow("ru_RU") << "ru_RU" << QStringLiteral("Перетащите ползунок вправо до конца");
    QTest::newRow("unknown: English") << "xx_YY" << QStringLiteral("Drag the slider to the right");
}

void TestSlider::languageReachesEveryPage()
{
    QFETCH(QString, language);
    QFETCH(QString, dragText);

    // Set before any page loaded: each page takes it up when ready.
    VerifyCodeSlider slider;
    slider.setLanguage(language);
    for (auto place : {VerifyCodeSlider::AccountLogin, VerifyCodeSlider::CodeLogin, VerifyCodeSlider::TrustDevice}) {
        QVERIFY(waitUntilReady(slider.view(place)));
        SPIN_COMPARE(evaluate(slider.view(place), labelText).toString(), dragText);
    }
}

// What the web engine says at exit comes only after the application is gone, so a child
// process of this suite runs an application to its end and reports the messages.
void TestSlider::pagesGoBeforeTheProfile()
{
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--exit-child")});
    QVERIFY(child.waitForFinished(90000));
    const QString output = QString::fromUtf8(child.readAllStandardOutput());
    QCOMPARE(child.exitCode(), 0);
    QVERIFY2(output.contains(QLatin1String("slider pages loaded")), qPrintable(output));
    QVERIFY2(output.contains(QLatin1String("dialogs released")), qPrintable(output));
    QVERIFY2(!output.contains(QLatin1String("WebEnginePage")), qPrintable(output));
}

namespace exitchild {

QStringList messages;
std::unique_ptr<VerifyCodeSlider> slider;
std::unique_ptr<LoginDlalog> login;
std::unique_ptr<LoginVerify> verify;

void capture(QtMsgType, const QMessageLogContext &, const QString &message)
{
    messages << message;
}

// As a host's module does at exit: its own post routine, made before any web page existed,
// releases the dialogs and then the slider.
void releaseDialogs()
{
    verify.reset();
    login.reset();
    slider.reset();
    messages << QStringLiteral("dialogs released");
}

int run(int argc, char **argv)
{
    bool loaded = false;
    {
        QApplication app(argc, argv);
        qAddPostRoutine(&releaseDialogs);
        slider = std::make_unique<VerifyCodeSlider>();
        login = std::make_unique<LoginDlalog>();
        verify = std::make_unique<LoginVerify>();
        login->setSlider(slider.get());
        verify->setSlider(slider.get());
        login->show();
        loaded = waitUntilReady(slider->view(VerifyCodeSlider::AccountLogin))
            && waitUntilReady(slider->view(VerifyCodeSlider::TrustDevice));
        qInstallMessageHandler(&capture);
    }
    qInstallMessageHandler(nullptr);
    QTextStream out(stdout);
    if (loaded)
        out << "slider pages loaded\n";
    for (const QString &message : messages)
        out << message << '\n';
    return 0;
}

} // namespace exitchild

int main(int argc, char **argv)
{
    // The web engine shares its GL contexts with the widgets; this must precede the application.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    if (argc > 1 && qstrcmp(argv[1], "--exit-child") == 0)
        return exitchild::run(argc, argv);
    QApplication app(argc, argv);
    TestSlider test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_slider.moc"
