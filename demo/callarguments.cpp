#include "callarguments.h"

#include <QString>

#include <msgpack.hpp>

QVariantList callArguments(const QByteArray &payload)
{
    QVariantList arguments;
    if (payload.isEmpty())
        return arguments;
    try {
        const msgpack::object_handle handle = msgpack::unpack(payload.constData(), std::size_t(payload.size()));
        const msgpack::object &array = handle.get();
        if (array.type != msgpack::type::ARRAY)
            return arguments;
        for (std::uint32_t i = 0; i < array.via.array.size; ++i) {
            const msgpack::object &item = array.via.array.ptr[i];
            if (item.type == msgpack::type::STR)
                arguments << QString::fromUtf8(item.via.str.ptr, int(item.via.str.size));
            else if (item.type == msgpack::type::BOOLEAN)
                arguments << item.via.boolean;
            else
                arguments << QVariant();
        }
    } catch (const std::exception &) {
        arguments.clear();
    }
    return arguments;
}
