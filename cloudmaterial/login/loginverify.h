#pragma once

#include "cloudmaterial/login/loginjson.h"

#include <QDialog>

#include <memory>

namespace talvor::cloudmaterial {

class VerifyCodeSlider;

/**
 * The second factor: the cloud wants a code sent to the account's phone or e-mail address
 * before it trusts a new device. Both requests are answered synchronously by the login
 * controller; sigLogin returns 0 on success, which accepts the dialog.
 *
 * Owned by the Qt thread.
 */
class LoginVerify : public QDialog
{
    Q_OBJECT

public:
    explicit LoginVerify(QWidget *parent = nullptr);
    ~LoginVerify() override;

    /** The account's phone number, shown masked; preferred over the e-mail address. */
    void setPhone(const QString &phone);
    void setEmail(const QString &email);
    void setCreditSignature(const QString &signature);
    QString creditSignature() const;
    /** Places the slider view of the trusted-device check. */
    void setSlider(VerifyCodeSlider *slider);
    /** Clears the code and the error; a running countdown ends at its next tick. */
    void resetDialog();

    // For tests: the get-code button's countdown.
    int countdownValue() const;
    bool isCountingDown() const;

Q_SIGNALS:
    int sigLogin(const talvor::cloudmaterial::SecondVerifyCodeInfo &info);
    int sigGetVerifyCode(const talvor::cloudmaterial::AliVerifyCodeInfo &info);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
