#pragma once

namespace talvor::cloudmaterial {

/**
 * The result of a login call, as the controller returns it and the dialogs show it. The
 * dialogs' signals carry it as an int, so the values are fixed.
 */
enum LoginResult : int {
    Success = 0,
    VerifyCodeError = -1,
    AccountOrPasswordError = -2,
    PhoneNotFound = -3,
    EmailNotFound = -4,
    LoginTypeLocked = -5,
    UnknownError = -6,
};

} // namespace talvor::cloudmaterial
