#pragma once

#include <QMetaType>

#include <string>

// The module's signals carry UTF-8 std::strings, also across threads. Declared here rather
// than in an installed header, so that a host may declare it for itself.
Q_DECLARE_METATYPE(std::string)
