#pragma once

// The login's side of the local cloud: its services, two accounts (alice, bob) and the requests
// the login dialog builds, and reading back what reached the login gateway.

#include "cloudmaterial/login/loginjson.h"

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

class CloudSim;

inline const QString servicePrefix = QStringLiteral("v1/web-backend-service/");
inline const QString sliderService = servicePrefix + QStringLiteral("identity-verify-code/slider");
inline const QString phoneService = servicePrefix + QStringLiteral("authenticate/limit/mobile-phone");
inline const QString emailService = servicePrefix + QStringLiteral("authenticate/limit/email");
inline const QString passwordService = servicePrefix + QStringLiteral("authenticate/limit/password");
inline const QString phoneCodeService = servicePrefix + QStringLiteral("account/mobilephoneverifycode");
inline const QString creditService = servicePrefix + QStringLiteral("loginidentity/device-credit-signature");

// Alice's codes are always the same, once asked for; Bob needs a second factor and gets a fresh
// code with every request.
inline const char *const alicePhone = "13800000001", *const aliceEmail = "alice@example.com",
                         *const aliceCode = "123456";
inline const char *const bobPhone = "13900000002";
inline const QByteArray accounts =
    R"({"accounts":[{"name":"alice","password":"Secret-1","phone":"13800000001",)"
    R"("email":"alice@example.com","code":"123456","token":"tok-alice"},)"
    R"({"name":"bob","password":"Bob-pass2","phone":"13900000002","secondFactor":true}]})";

/** The two accounts, with @p member set to @p value at the scenario's root when given. */
QByteArray scenario(const char *member = nullptr, const QJsonValue &value = {});

enum class Mode { Phone, Email, Password };

/**
 * A login as the dialog builds it. A password login carries what the slider page delivers, a
 * new session each time; a code login needs alice's code to have been sent (armCodes).
 */
talvor::cloudmaterial::LoginInfo loginFor(Mode mode, const char *identify = "alice", const char *password = "Secret-1");
/** Has @p cloud send alice's phone and e-mail codes, leaving no request in its log. */
bool armCodes(CloudSim &cloud);
/** A code request as the login dialog builds it for alice's phone or e-mail address. */
talvor::cloudmaterial::AliVerifyCodeInfo codeRequestFor(const char *address);
QString gatewayPath(const QString &service);
/** A request's header, whatever the case of its name. */
QString headerOf(const QJsonObject &request, const char *name);
QJsonObject bodyOf(const QJsonObject &request);
/** The paths of the requests of @p cloud that went to the login gateway, oldest first. */
QStringList gatewayPaths(CloudSim &cloud, QList<QJsonObject> *requests = nullptr);
/** The members of a request body in the order they were sent. */
QStringList keysInOrder(const QJsonObject &request);
