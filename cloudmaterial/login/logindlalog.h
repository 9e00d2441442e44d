#pragma once

#include "cloudmaterial/configjson.h"
#include "cloudmaterial/countrycodejson.h"
#include "cloudmaterial/login/loginjson.h"
#include "cloudmaterial/login/nodesjson.h"

#include <QDialog>

#include <memory>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

class VerifyCodeSlider;

/**
 * The login dialog: account and password behind a slider check, or a phone number or e-mail
 * address with a one-time code; plus the choice of the cloud node.
 *
 * Requests leave as signals that the login controller answers synchronously (direct
 * connections) with a login result: 0 success, -1 wrong code, -2 wrong account or password,
 * -3 unknown phone, -4 unknown e-mail, -5 login type locked, -6 anything else.
 *
 * Owned by the Qt thread.
 */
class LoginDlalog : public QDialog
{
    Q_OBJECT

public:
    explicit LoginDlalog(QWidget *parent = nullptr);
    ~LoginDlalog() override;

    /** The remembered user name and the state of its check box (config.json). */
    void setConfig(const ConfigJson &config);
    /** The calling codes offered in comboBox_typeNum. */
    void setCountryCodes(const CountryCodeJson &codes);
    /** Shows @p node / @p identity as the chosen entry of the server list. */
    void setCurrentNode(const QString &node, const QString &identity);
    /** Fills the server list: each entry's icon and its label in the dialog's language. */
    void setNodeList(const std::vector<NodeEntry> &nodes);
    /** Places the slider views of the account and code pages and listens to their results. */
    void setSlider(VerifyCodeSlider *slider);
    /** Module language ("cn", "tw", "en", "ko_KR", "ru_RU"): node labels and texts follow it. */
    void setLanguage(const std::string &moduleLanguage);
    /** Shows the message of a login result in the current page's tip label; 0 clears the tips. */
    void showResult(int loginResult);

    // For tests: the get-code button's countdown.
    int countdownValue() const;
    bool isCountingDown() const;

Q_SIGNALS:
    int sigLogin(const talvor::cloudmaterial::LoginInfo &info);
    /** Non-zero when the code was sent. */
    int sigGetCode(const talvor::cloudmaterial::AliVerifyCodeInfo &info);
    void sigUpdateSeverSelect(const QString &node, const QString &identity);

protected:
    void showEvent(QShowEvent *event) override;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
