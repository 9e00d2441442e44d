#pragma once

#include <QString>

namespace talvor::cloudmaterial::loginlinks {

/**
 * The login dialog's links to the account web site, as rich text with @p text as the link's
 * words: the site is the build's RXCM_WEB_HOST. Any thread.
 */
QString forgotPassword(const QString &text);
/** Starts with " ? ", the separator the site's registration link has always been shown with. */
QString registerAccount(const QString &text);
QString termsOfService(const QString &text);
QString privacyPolicy(const QString &text);

} // namespace talvor::cloudmaterial::loginlinks
