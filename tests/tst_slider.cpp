// The slider check end to end: the page in a real web view under Xvfb, driven with pointer
// events, its result arriving through the web channel, the result checked here against the
// signing rule written out independently and accepted by the local cloud.

#include "cloudmaterial/login/jsmessage.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "support/cloudclient.h"
#include "support/cloudsimfixture.h"

#include <QtTest>

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <QPointer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <QTimer>
#include <QVBoxLayout>
#include <QWebChannel>
#include <QWebEnginePage>
#include <QWebEngineView>
#include <QWidget>

#include <functional>
#include <memory>
#include <optional>

using talvor::cloudmaterial::VerifyCodeSlider;

namespace {

// Set in the copy of this suite that runs without a slider page beside it.
const char missingPageRun[] = "RXCM_SLIDER_WITHOUT_PAGE";

// Runs the event loop until @p done holds or @p timeout ms have passed. QTest::qWait() and
// the QTRY macros sleep between rounds of events, which starves the web engine's message
// pump (a page then takes seconds to load), so this suite waits in a real event loop.
bool spinUntil(const std::function<bool()> &done, int timeout = 30000)
{
    if (done())
        return true;
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done())
            loop.quit();
    });
    QTimer::singleShot(timeout, &loop, &QEventLoop::quit);
    poll.start(5);
    loop.exec();
    return done();
}

// Waits for @p actual to become @p expected, then compares them (reporting both if not).
#define SPIN_COMPARE(actual, expected)                                                             \
    do {                                                                                           \
        spinUntil([&] { return (actual) == (expected); });                                         \
        QCOMPARE(actual, expected);                                                                \
    } while (false)

QVariant evaluate(QWebEngineView *view, const QString &script)
{
    auto result = std::make_shared<std::optional<QVariant>>();
    view->page()->runJavaScript(script, [result](const QVariant &value) { *result = value; });
    if (!spinUntil([&] { return result->has_value(); }, 20000))
        return QVariant(QStringLiteral("<no answer from the page>"));
    return **result;
}

// Presses the handle, moves it in @p steps to @p fraction of the track (past the end for
// 1.0) and, if asked, lets go. Returns the track's travel in px, -1 without a slider.
QString dragScript(double fraction, int steps, bool release)
{
    return QStringLiteral(R"((function (fraction, steps, release) {
        var handle = document.getElementById('handle');
        var slider = document.getElementById('slider');
        if (!handle || !slider)
            return -1;
        var box = handle.getBoundingClientRect();
        var x = Math.round(box.left + box.width / 2), y = Math.round(box.top + box.height / 2);
        var travel = slider.clientWidth - handle.offsetWidth;
        var end = Math.round(x + travel * fraction + (fraction >= 1 ? 12 : 0));
        function fire(type, clientX) {
            handle.dispatchEvent(new PointerEvent(type, {
                bubbles: true, cancelable: true, pointerId: 7, pointerType: 'mouse',
                isPrimary: true, button: type === 'pointermove' ? -1 : 0,
                buttons: type === 'pointerup' ? 0 : 1, clientX: clientX, clientY: y }));
        }
        fire('pointerdown', x);
        for (var i = 1; i <= steps; ++i)
            fire('pointermove', Math.round(x + (end - x) * i / steps));
        if (release)
            fire('pointerup', end);
        return travel;
    })(%1, %2, %3))")
        .arg(fraction)
        .arg(steps)
        .arg(release ? QStringLiteral("true") : QStringLiteral("false"));
}

const QString handleOffset = QStringLiteral(
    "Math.round(new DOMMatrix(getComputedStyle(document.getElementById('handle')).transform).m41)");
const QString labelText = QStringLiteral("document.getElementById('label').textContent");
const QString isVerified = QStringLiteral("document.getElementById('slider').classList.contains('verified')");

// The signing rule of the page and the cloud, written out again: token "nc-" + base64url of
// a JSON object, sig the hex HMAC-SHA256 of sessionId + "|" + token under "rxcm-slider-v1".
QString expectedSig(const QString &sessionId, const QString &token)
{
    return QString::fromLatin1(QMessageAuthenticationCode::hash((sessionId + QLatin1Char('|') + token).toUtf8(),
                                                                "rxcm-slider-v1", QCryptographicHash::Sha256)
                                   .toHex());
}

QJsonObject tokenSummary(const QString &token)
{
    if (!token.startsWith(QLatin1String("nc-")))
        return {};
    const QByteArray encoded = token.mid(3).toLatin1();
    auto decoded = QByteArray::fromBase64Encoding(encoded, QByteArray::Base64UrlEncoding
                                                               | QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return {};
    return QJsonDocument::fromJson(*decoded).object();
}

// A stand-in for a login dialog: dark like the theme, holding one slider view.
std::unique_ptr<QWidget> hostFor(QWebEngineView *view)
{
    auto host = std::make_unique<QWidget>();
    host->setStyleSheet(QStringLiteral("background: #272b33;"));
    host->setAutoFillBackground(true);
    auto *layout = new QVBoxLayout(host.get());
    layout->setContentsMargins(16, 12, 16, 12);
    view->setStyleSheet(QStringLiteral("QWebEngineView { border: none; background: transparent; }"));
    view->setFixedSize(320, 40);
    layout->addWidget(view);
    host->show();
    return host;
}

QString screenshotPath(const QString &name)
{
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/../screenshots");
    QDir().mkpath(folder);
    return QDir::cleanPath(folder + QLatin1Char('/') + name);
}

// True once the grabbed picture holds a pixel of the verified colour (green), i.e. the page
// has really been drawn in its verified state.
bool showsVerifiedColour(QWidget *widget)
{
    const QImage image = widget->grab().toImage();
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.green() > 120 && c.green() > c.red() + 60 && c.green() > c.blue() + 40)
                return true;
        }
    return false;
}

} // namespace

// The drag helper verifies as it goes; a failure inside it ends the calling test too.
#define DRAG_TO_THE_END(place, slider)                                                                 \
    do {                                                                                               \
        dragToTheEnd(place, slider);                                                                   \
        if (QTest::currentTestFailed())                                                                \
            return;                                                                                    \
    } while (false)

class TestSlider : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void setsAreBuiltAndLoaded();
    void dragToTheEndDeliversASignedResult();
    void cloudAcceptsTheResult();
    void earlyReleaseSpringsBack();
    void resultsAreStoredAsTheyCome();
    void languageSwitchesPageText_data();
    void languageSwitchesPageText();
    void viewIsRebuiltAfterItsDialogIsGone();
    void missingPageGivesNoResult();

private:
    // Waits for the page of @p view and its web channel.
    bool waitUntilReady(QWebEngineView *view);
    // Drags the slider of @p place to the end and keeps the delivered values.
    void dragToTheEnd(VerifyCodeSlider::Place place, VerifyCodeSlider &slider);

    QString m_lastSessionId, m_lastSig, m_lastToken;
    int m_lastTravel = 0;
};

void TestSlider::initTestCase()
{
    const bool withoutPage = qEnvironmentVariableIsSet(missingPageRun);
    QCOMPARE(QFile::exists(VerifyCodeSlider::pageUrl().toLocalFile()), !withoutPage);
}

bool TestSlider::waitUntilReady(QWebEngineView *view)
{
    // The page may already be there; what counts is the channel being up inside it.
    return spinUntil([&] {
        return evaluate(view, QStringLiteral("!!(window.myObject && document.getElementById('handle'))")).toBool();
    });
}

void TestSlider::dragToTheEnd(VerifyCodeSlider::Place place, VerifyCodeSlider &slider)
{
    QWebEngineView *view = slider.view(place);
    QSignalSpy delivered(slider.message(place), &JSMessage::signalJSGetSuccess);
    QVERIFY(waitUntilReady(view));
    m_lastTravel = evaluate(view, dragScript(1.0, 24, true)).toInt();
    QVERIFY(m_lastTravel > 100);
    SPIN_COMPARE(delivered.count(), 1);
    m_lastSessionId = slider.message(place)->sessionId();
    m_lastSig = slider.message(place)->sig();
    m_lastToken = slider.message(place)->token();
}

void TestSlider::setsAreBuiltAndLoaded()
{
    VerifyCodeSlider slider;
    QList<JSMessage *> messages;
    QList<QWebEngineView *> views;
    std::vector<std::unique_ptr<QSignalSpy>> loaded;
    for (auto place : {VerifyCodeSlider::AccountLogin, VerifyCodeSlider::CodeLogin, VerifyCodeSlider::TrustDevice}) {
        QWebEngineView *view = slider.view(place);
        QVERIFY(view);
        QCOMPARE(slider.view(place), view); // handed out again while it lives
        QCOMPARE(view->page()->requestedUrl(), VerifyCodeSlider::pageUrl());
        QVERIFY(view->page()->webChannel());
        JSMessage *message = slider.message(place);
        QVERIFY(message);
        QCOMPARE(message->parent(), &slider);
        QVERIFY(message->sessionId().isEmpty() && message->sig().isEmpty() && message->token().isEmpty());
        QVERIFY(!messages.contains(message));
        messages.append(message);
        views.append(view);
        loaded.push_back(std::make_unique<QSignalSpy>(view, &QWebEngineView::loadFinished));
    }
    QCOMPARE(VerifyCodeSlider::pageUrl(),
             QUrl::fromLocalFile(QCoreApplication::applicationDirPath() + QStringLiteral("/cloud/html/nc.html")));
    for (std::size_t i = 0; i < loaded.size(); ++i) {
        SPIN_COMPARE(loaded[i]->count(), 1);
        QCOMPARE(loaded[i]->at(0).at(0).toBool(), true);
        QCOMPARE(views.at(int(i))->url(), VerifyCodeSlider::pageUrl());
    }
    // Each page sees its own set's object under the agreed name; a later result replaces the earlier.
    QWebEngineView *view = slider.view(VerifyCodeSlider::TrustDevice);
    JSMessage *set = slider.message(VerifyCodeSlider::TrustDevice);
    QSignalSpy fromPage(set, &JSMessage::signalJSGetSuccess);
    QVERIFY(waitUntilReady(view));
    evaluate(view, QStringLiteral("myObject.slotJSMsg('a', 'b', 'c'); myObject.slotJSMsg('d', 'e', 'f');"));
    SPIN_COMPARE(fromPage.count(), 2);
    QCOMPARE(QStringList({set->sessionId(), set->sig(), set->token()}), QStringList({"d", "e", "f"}));
    QVERIFY(slider.message(VerifyCodeSlider::AccountLogin)->sessionId().isEmpty());
}

void TestSlider::dragToTheEndDeliversASignedResult()
{
    VerifyCodeSlider slider;
    QWebEngineView *view = slider.view(VerifyCodeSlider::AccountLogin);
    const auto host = hostFor(view);
    QVERIFY(QTest::qWaitForWindowExposed(host.get()));
    QVERIFY(waitUntilReady(view));
    QVERIFY(!host->grab().isNull());
    host->grab().save(screenshotPath(QStringLiteral("slider-before.png")));
    QVERIFY(!showsVerifiedColour(host.get()));

    // Other places stay untouched by this drag.
    QSignalSpy otherPlace(slider.message(VerifyCodeSlider::CodeLogin), &JSMessage::signalJSGetSuccess);
    DRAG_TO_THE_END(VerifyCodeSlider::AccountLogin, slider);
    QCOMPARE(otherPlace.count(), 0);
    QVERIFY(slider.message(VerifyCodeSlider::CodeLogin)->sessionId().isEmpty());

    const QString sessionId = m_lastSessionId;
    const QString sig = m_lastSig;
    const QString token = m_lastToken;
    QVERIFY(!sessionId.isEmpty() && !sig.isEmpty() && !token.isEmpty());
    const QRegularExpression uuid(QStringLiteral("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$"));
    QVERIFY2(uuid.match(sessionId).hasMatch(), qPrintable(sessionId));
    QCOMPARE(sig, expectedSig(sessionId, token));
    // The summary tells how far the handle went (the whole track) and in how many moves.
    const QJsonObject summary = tokenSummary(token);
    QVERIFY2(!summary.isEmpty(), qPrintable(token));
    QCOMPARE(summary.keys(), (QStringList{"dx", "ms", "n"}));
    QCOMPARE(summary.value("dx").toInt(), m_lastTravel);
    QVERIFY(summary.value("n").toInt() >= 2 && summary.value("n").toInt() <= 24);
    QVERIFY(summary.value("ms").toInt() >= 0);

    // The page shows its verified state, and a further drag delivers nothing new.
    QCOMPARE(evaluate(view, isVerified).toBool(), true);
    QVERIFY(spinUntil([&] { return showsVerifiedColour(host.get()); }));
    host->grab().save(screenshotPath(QStringLiteral("slider-after.png")));
    QSignalSpy again(slider.message(VerifyCodeSlider::AccountLogin), &JSMessage::signalJSGetSuccess);
    evaluate(view, dragScript(1.0, 10, true));
    evaluate(view, QStringLiteral("0")); // one more round trip for anything queued
    QCOMPARE(again.count(), 0);
    QCOMPARE(slider.message(VerifyCodeSlider::AccountLogin)->sessionId(), sessionId);

    // Two drags never share a session id.
    QSignalSpy reloaded(view, &QWebEngineView::loadFinished);
    view->reload();
    SPIN_COMPARE(reloaded.count(), 1);
    QVERIFY(slider.message(VerifyCodeSlider::AccountLogin)->sessionId().isEmpty()); // not verified again
    DRAG_TO_THE_END(VerifyCodeSlider::AccountLogin, slider);
    QVERIFY(m_lastSessionId != sessionId);
    QCOMPARE(m_lastSig, expectedSig(m_lastSessionId, m_lastToken));
}

void TestSlider::cloudAcceptsTheResult()
{
    VerifyCodeSlider slider;
    const auto host = hostFor(slider.view(VerifyCodeSlider::CodeLogin));
    DRAG_TO_THE_END(VerifyCodeSlider::CodeLogin, slider);

    CloudSim cloud;
    QVERIFY(cloud.start(R"({"accounts":[{"token":"tok-1","name":"alice","password":"pw"}]})"));
    CloudClient client(cloud);
    const auto check = [&](const QString &sessionId, const QString &sig, const QString &token) {
        const QJsonObject body{{"flag", 0},          {"key", "slider-key"}, {"parameter", ""},
                               {"phone", ""},        {"sessionId", sessionId}, {"sig", sig},
                               {"templateCode", ""}, {"token", token},      {"type", ""}};
        return client.post(QStringLiteral("v1/web-backend-service/identity-verify-code/slider"), body).json();
    };

    const QJsonObject accepted = check(m_lastSessionId, m_lastSig, m_lastToken);
    QCOMPARE(accepted.value("status").toBool(), true);
    QCOMPARE(accepted.value("key").toString(), QStringLiteral("slider-key"));
    // The same result with one changed character of the signature is refused, so the
    // acceptance above rests on the signature.
    QString forged = m_lastSig;
    forged[0] = forged.at(0) == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
    const QJsonObject refused = check(m_lastSessionId, forged, m_lastToken);
    QCOMPARE(refused.value("status").toBool(), false);
}

void TestSlider::earlyReleaseSpringsBack()
{
    VerifyCodeSlider slider;
    QWebEngineView *view = slider.view(VerifyCodeSlider::AccountLogin);
    const auto host = hostFor(view);
    QSignalSpy delivered(slider.message(VerifyCodeSlider::AccountLogin), &JSMessage::signalJSGetSuccess);
    QVERIFY(waitUntilReady(view));

    // Held halfway: the handle stays where it was taken.
    const int travel = evaluate(view, dragScript(0.5, 12, false)).toInt();
    QVERIFY(travel > 100);
    const int held = evaluate(view, handleOffset).toInt();
    QVERIFY2(qAbs(held - travel / 2) <= 2, qPrintable(QStringLiteral("%1 of %2").arg(held).arg(travel)));
    host->grab().save(screenshotPath(QStringLiteral("slider-halfway.png")));

    // Let go: back to the start, no result, not verified.
    evaluate(view, QStringLiteral(
        "document.getElementById('handle').dispatchEvent(new PointerEvent('pointerup', {bubbles: true, "
        "pointerId: 7, pointerType: 'mouse', isPrimary: true, button: 0, buttons: 0}))"));
    SPIN_COMPARE(evaluate(view, handleOffset).toInt(), 0);
    QCOMPARE(evaluate(view, isVerified).toBool(), false);
    QCOMPARE(delivered.count(), 0);
    QVERIFY(slider.message(VerifyCodeSlider::AccountLogin)->sessionId().isEmpty());

    // Nearly at the end is still not the end.
    evaluate(view, dragScript(0.95, 12, true));
    SPIN_COMPARE(evaluate(view, handleOffset).toInt(), 0);
    QCOMPARE(delivered.count(), 0);

    // The slider is not stuck: a full drag afterwards passes.
    DRAG_TO_THE_END(VerifyCodeSlider::AccountLogin, slider);
    QCOMPARE(delivered.count(), 1);
}

void TestSlider::resultsAreStoredAsTheyCome()
{
    JSMessage message;
    QSignalSpy delivered(&message, &JSMessage::signalJSGetSuccess);
    QSignalSpy language(&message, &JSMessage::sigLanguageChanged);

    QTest::ignoreMessage(QtDebugMsg, R"(Received from JavaScript: "s-2"     "g \"2\""      "t-2")");
    message.slotJSMsg(QStringLiteral("s-2"), QStringLiteral("g \"2\""), QStringLiteral("t-2"));
    QCOMPARE(delivered.count(), 1);
    QCOMPARE(QStringList({message.sessionId(), message.sig(), message.token()}), QStringList({"s-2", "g \"2\"", "t-2"}));

    // Empty values are stored as they come, and still count as a delivery.
    QTest::ignoreMessage(QtDebugMsg, R"(Received from JavaScript: ""     "g-3"      "")");
    message.slotJSMsg(QString(), QStringLiteral("g-3"), QString());
    QCOMPARE(delivered.count(), 2);
    QCOMPARE(QStringList({message.sessionId(), message.sig(), message.token()}), QStringList({"", "g-3", ""}));
    QCOMPARE(language.count(), 0);
}

void TestSlider::languageSwitchesPageText_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("dragText");
    QTest::addColumn<QString>("doneText");
    QTest::newRow("cn") << "cn" << QStringLiteral("请按住滑块，拖动到最右边") << QStringLiteral("验证通过");
    QTest::newRow("tw") << "tw" << QStringLiteral("請按住滑塊，拖動到最右邊") << QStringLiteral("驗證通過");
    QTest::newRow("en") << "en" << QStringLiteral("Drag the slider to the right") << QStringLiteral("Verified");
    QTest::newRow("ko_KR") << "ko_KR" << QStringLiteral("슬라이더를 오른쪽 끝까지 끌어 주세요")
                           << QStringLiteral("인증되었습니다");
    QTest::newRow("ru_RU") << "ru_RU" << QStringLiteral("Перетащите ползунок вправо до конца")
                           << QStringLiteral("Проверка пройдена");
}

void TestSlider::languageSwitchesPageText()
{
    QFETCH(QString, language);
    QFETCH(QString, dragText);
    QFETCH(QString, doneText);

    VerifyCodeSlider slider;
    QWebEngineView *view = slider.view(VerifyCodeSlider::CodeLogin);
    const auto host = hostFor(view);
    QSignalSpy changed(slider.message(VerifyCodeSlider::CodeLogin), &JSMessage::sigLanguageChanged);
    QVERIFY(waitUntilReady(view));

    // The page follows the signal on its own (the slider is bypassed here).
    const QString other = language == QLatin1String("ru_RU") ? QStringLiteral("cn") : QStringLiteral("ru_RU");
    Q_EMIT slider.message(VerifyCodeSlider::CodeLogin)->sigLanguageChanged(language);
    SPIN_COMPARE(evaluate(view, labelText).toString(), dragText);
    QCOMPARE(evaluate(view, QStringLiteral("document.documentElement.lang")).toString(), language);
    Q_EMIT slider.message(VerifyCodeSlider::CodeLogin)->sigLanguageChanged(other);
    QVERIFY(spinUntil([&] { return evaluate(view, labelText).toString() != dragText; }));

    // The slider tells every set.
    changed.clear();
    slider.setLanguage(language);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.at(0).at(0).toString(), language);
    SPIN_COMPARE(evaluate(view, labelText).toString(), dragText);

    // Every place hears the change, including pages that finished loading after it.
    for (auto place : {VerifyCodeSlider::AccountLogin, VerifyCodeSlider::TrustDevice}) {
        QVERIFY(waitUntilReady(slider.view(place)));
        SPIN_COMPARE(evaluate(slider.view(place), labelText).toString(), dragText);
    }

    // The verified state speaks the same language.
    DRAG_TO_THE_END(VerifyCodeSlider::CodeLogin, slider);
    QCOMPARE(evaluate(view, labelText).toString(), doneText);

    // A language the page does not know shows English, on every page alike.
    slider.setLanguage(QStringLiteral("xx_YY"));
    SPIN_COMPARE(evaluate(view, labelText).toString(), QStringLiteral("Verified"));
    SPIN_COMPARE(evaluate(slider.view(VerifyCodeSlider::AccountLogin), labelText).toString(),
                 QStringLiteral("Drag the slider to the right"));
}

void TestSlider::viewIsRebuiltAfterItsDialogIsGone()
{
    auto owned = std::make_unique<VerifyCodeSlider>();
    VerifyCodeSlider &slider = *owned;
    QPointer<QWebEngineView> unplaced = slider.view(VerifyCodeSlider::TrustDevice);
    JSMessage *message = slider.message(VerifyCodeSlider::AccountLogin);
    QWebChannel *channel = slider.view(VerifyCodeSlider::AccountLogin)->page()->webChannel();
    slider.setLanguage(QStringLiteral("tw"));

    // First dialog: the view lives in it and the check is passed.
    auto dialog = hostFor(slider.view(VerifyCodeSlider::AccountLogin));
    QPointer<QWebEngineView> first = slider.view(VerifyCodeSlider::AccountLogin);
    QCOMPARE(first->parent(), dialog.get());
    DRAG_TO_THE_END(VerifyCodeSlider::AccountLogin, slider);
    QVERIFY(!message->sessionId().isEmpty());

    // The dialog goes, and its view with it.
    dialog.reset();
    QVERIFY(first.isNull());

    // The next dialog gets a working view on the same set, not verified yet.
    QWebEngineView *second = slider.view(VerifyCodeSlider::AccountLogin);
    QVERIFY(second);
    QVERIFY(message->sessionId().isEmpty() && message->sig().isEmpty() && message->token().isEmpty());
    QCOMPARE(slider.message(VerifyCodeSlider::AccountLogin), message);
    QCOMPARE(second->page()->webChannel(), channel);
    QCOMPARE(second->page()->requestedUrl(), VerifyCodeSlider::pageUrl());
    QSignalSpy loaded(second, &QWebEngineView::loadFinished);
    dialog = hostFor(second);
    SPIN_COMPARE(loaded.count(), 1);
    QCOMPARE(loaded.at(0).at(0).toBool(), true);
    QCOMPARE(second->url(), VerifyCodeSlider::pageUrl());
    // It speaks the language set before it existed.
    QVERIFY(waitUntilReady(second));
    SPIN_COMPARE(evaluate(second, labelText).toString(), QStringLiteral("請按住滑塊，拖動到最右邊"));
    const QString before = m_lastSessionId;
    DRAG_TO_THE_END(VerifyCodeSlider::AccountLogin, slider);
    QVERIFY(!message->sessionId().isEmpty());
    QVERIFY(message->sessionId() != before);
    QCOMPARE(slider.view(VerifyCodeSlider::AccountLogin), second);

    // The slider goes first: the dialog's view survives without the channel, the views nobody
    // took go with it.
    owned.reset();
    QCOMPARE(second->parent(), dialog.get());
    QCOMPARE(second->page()->webChannel(), nullptr);
    QVERIFY(unplaced.isNull());
    QCOMPARE(evaluate(second, QStringLiteral("1 + 1")).toInt(), 2);
}

void TestSlider::missingPageGivesNoResult()
{
    if (!qEnvironmentVariableIsSet(missingPageRun)) {
        // This suite again, from a folder with no cloud/html beside it.
        QTemporaryDir tree;
        QVERIFY(tree.isValid());
        QVERIFY(QDir(tree.path()).mkpath(QStringLiteral("bin")));
        const QString copy = tree.path() + QStringLiteral("/bin/") + QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), copy));
        QVERIFY(QFile::setPermissions(copy, QFile::permissions(copy) | QFileDevice::ExeOwner));
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QString::fromLatin1(missingPageRun), QStringLiteral("1"));
        child.setProcessEnvironment(environment);
        child.setProcessChannelMode(QProcess::MergedChannels);
        child.start(copy, {QStringLiteral("missingPageGivesNoResult")});
        QVERIFY(child.waitForStarted());
        QVERIFY(child.waitForFinished(180000));
        const QByteArray output = child.readAll();
        QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0, output.constData());
        QVERIFY2(output.contains("PASS   : TestSlider::missingPageGivesNoResult()"), output.constData());
        return;
    }

    // In the copy: the page is not there, the view stays blank and nothing ever arrives.
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Slider page failed to load for place 0")));
    VerifyCodeSlider slider;
    QWebEngineView *view = slider.view(VerifyCodeSlider::AccountLogin);
    QSignalSpy loaded(view, &QWebEngineView::loadFinished);
    QSignalSpy delivered(slider.message(VerifyCodeSlider::AccountLogin), &JSMessage::signalJSGetSuccess);
    const auto host = hostFor(view);
    SPIN_COMPARE(loaded.count(), 1);
    QCOMPARE(loaded.at(0).at(0).toBool(), false);
    QCOMPARE(evaluate(view, QStringLiteral("document.getElementById('handle') === null")).toBool(), true);
    QCOMPARE(evaluate(view, QStringLiteral("document.body ? document.body.innerText : ''")).toString(), QString());
    QCOMPARE(evaluate(view, dragScript(1.0, 10, true)).toInt(), -1);
    QCOMPARE(evaluate(view, QStringLiteral("typeof window.myObject")).toString(), QStringLiteral("undefined"));
    QCOMPARE(delivered.count(), 0);
    QVERIFY(slider.message(VerifyCodeSlider::AccountLogin)->sessionId().isEmpty());
}

int main(int argc, char **argv)
{
    // The web engine shares its GL contexts with the widgets; this must precede the application.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    TestSlider test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_slider.moc"
