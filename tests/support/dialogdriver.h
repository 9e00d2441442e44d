#pragma once

// Driving the login dialogs as a user does, by their object names: clicks, typing, and the
// get-code countdown ticked without waiting a second per tick. Header only; the test's thread.

#include <QAbstractButton>
#include <QLineEdit>
#include <QMetaObject>
#include <QPushButton>
#include <QTest>
#include <QTimer>

template<typename T = QWidget>
T *child(const QObject *parent, const char *name)
{
    return parent->findChild<T *>(QLatin1String(name));
}

void click(const QObject *dialog, const char *button)
{
    QTest::mouseClick(child<QAbstractButton>(dialog, button), Qt::LeftButton);
}

void type(const QObject *dialog, const char *field, const QString &text)
{
    QTest::keyClicks(child<QLineEdit>(dialog, field), text);
}

// Stands in for the controller: counts the requests, keeps the last, answers as told.
template<typename Info>
auto recorder(int &calls, Info &last, const int &answer)
{
    return [&calls, &last, &answer](const Info &info) {
        ++calls;
        last = info;
        return answer;
    };
}

// Ticks of the get-code countdown, without waiting a second for each: the timer is stopped
// around the calls so that no real tick can come in between.
template<typename Dialog>
void tick(Dialog *dialog, int times = 1)
{
    auto *timer = child<QTimer>(dialog, "countdownTimer");
    timer->stop();
    for (int i = 0; i < times; ++i)
        QMetaObject::invokeMethod(timer, "timeout");
    if (dialog->isCountingDown())
        timer->start();
}

// The get-code countdown of either dialog, from the press that started it: 60 s shown on the
// button, no second request meanwhile, then ready again and a new press starts from 60.
template<typename Dialog>
void checkCountdown(Dialog *dialog, const int &codeCalls)
{
    auto *button = child<QPushButton>(dialog, "pushButton_getCode");
    const int calls = codeCalls;
    QCOMPARE(button->text(), QStringLiteral("获取验证码(60s)"));
    QCOMPARE(child<QTimer>(dialog, "countdownTimer")->interval(), 1000);
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, calls);
    tick(dialog);
    QCOMPARE(button->text(), QStringLiteral("获取验证码(59s)"));
    tick(dialog, 58);
    QCOMPARE(button->text(), QStringLiteral("获取验证码(1s)"));
    tick(dialog);
    QVERIFY(!dialog->isCountingDown() && !child<QTimer>(dialog, "countdownTimer")->isActive());
    QCOMPARE(button->text(), QStringLiteral("获取验证码"));
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, calls + 1);
    QCOMPARE(button->text(), QStringLiteral("获取验证码(60s)"));
}
