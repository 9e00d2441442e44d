#pragma once

#include "cloudmaterial/protocol/ajsonex.h"

#include <cstdint>
#include <string>

namespace talvor::cloudmaterial {

/** Slider check and code request (login dialog and verification dialog). */
struct AliVerifyCodeInfo
{
    std::int32_t flag = 0;
    std::string key; // echoed back by the cloud when the check passes
    std::string parameter;
    std::string phone; // phone number or e-mail address the code goes to
    std::string sessionId; // the slider's result, three values
    std::string sig;
    std::string templateCode;
    std::string token;
    std::string type;
};
AJSON(AliVerifyCodeInfo, flag, key, parameter, phone, sessionId, sig, templateCode, token, type)

/** The login request; which of mobilePhone, email and sessionId is filled picks the mode. */
struct LoginInfo
{
    std::string identityVerifyCode; // the SMS or e-mail code
    std::string oauthConfiguration;
    std::string mobilePhone;
    std::string countryCode;
    std::string creditSignature;
    std::string email;
    std::string identify; // the account name of a password login
    std::string password; // RSA-encrypted, Base64
    std::string sessionId;
    std::string sig;
    std::string token;

    // Not sent: the dialog's "remember user name" box, carried along for the controller.
    bool rememberUserName = false;
};
AJSON(LoginInfo, identityVerifyCode, oauthConfiguration, mobilePhone, countryCode, creditSignature, email, identify,
      password, sessionId, sig, token)

/** What the verification dialog hands over: the code and its slider result. */
struct SecondVerifyCodeInfo
{
    std::string identityVerifyCode;
    std::string sessionId;
    std::string sig;
    std::string token;
};
AJSON(SecondVerifyCodeInfo, identityVerifyCode, sessionId, sig, token)

/** Second factor: checks the code sent to the account's phone or e-mail. */
struct SecondVerifyCodeRequest
{
    std::string identityVerifyCode;
    std::string identify;
    std::string countryCode;
    std::int64_t id = 0;
};
AJSON(SecondVerifyCodeRequest, identityVerifyCode, identify, countryCode, id)

/** The device's signature, encrypted into DeviceCreditRequest::authCiphertext. */
struct DeviceSignature
{
    std::string source;
    std::string deviceSignature;
    std::int64_t timestamp = 0; // ms since 1970, one minute ahead
};
AJSON(DeviceSignature, source, deviceSignature, timestamp)

struct DeviceCreditRequest
{
    std::string authCiphertext;
    std::string type;
};
AJSON(DeviceCreditRequest, authCiphertext, type)

/**
 * Second factor: the login of a new device with its credit signature. The device credit
 * service reads the encrypted device signature (DeviceCreditRequest::authCiphertext) after
 * the record's own members, so it travels as the last member.
 */
struct SecondLoginRequest
{
    std::string identityVerifyCode;
    std::string identify;
    std::string countryCode;
    std::string creditSignature;
    std::string type;
    std::string authCiphertext;
};
AJSON(SecondLoginRequest, identityVerifyCode, identify, countryCode, creditSignature, type, authCiphertext)

struct AppInfo
{
    std::string appName;
};
AJSON(AppInfo, appName)

/** Reply of the slider check and of a code request. */
struct VerifyCodeResInfo
{
    std::string key;
    bool status = false;
};
AJSON(VerifyCodeResInfo, key, status)

struct LoginProtect
{
    ajson::text enableBackup;
    ajson::text mode;
    std::int64_t status = 0; // 0 asks for the second factor
};
AJSON(LoginProtect, enableBackup, mode, status)

struct LoginToken
{
    std::int64_t expiresIn = 0;
    std::string token;
    std::string type;
};
AJSON(LoginToken, expiresIn, token, type)

struct IdentifyInfo
{
    std::string countryCode;
    std::string email;
    std::string mobilePhone;
    std::string name;
};
AJSON(IdentifyInfo, countryCode, email, mobilePhone, name)

/** Reply of every login call. */
struct PhoneLoginResInfo
{
    LoginProtect deviceProtect;
    LoginProtect loginProtect;
    LoginToken token;
    IdentifyInfo identifyInfo;
    std::int64_t id = 0;
};
AJSON(PhoneLoginResInfo, deviceProtect, loginProtect, token, identifyInfo, id)

/** Reply of the device credit signature. */
struct AuthResult
{
    std::string info;
    std::string signature;
};
AJSON(AuthResult, info, signature)

} // namespace talvor::cloudmaterial
