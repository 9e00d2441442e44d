#pragma once

#include <QByteArray>
#include <QVariantList>

/**
 * The arguments of a proxy call as the module packs them, one msgpack array of strings and
 * booleans: strings as QString, booleans as bool, anything else as an invalid QVariant.
 * Empty for an empty payload or one that is not such an array. The host reads them only to
 * show what its group is doing.
 */
QVariantList callArguments(const QByteArray &payload);
