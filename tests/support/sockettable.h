#pragma once

#include <utility>

/**
 * This process's TCP connections to @p port, read from its descriptor table: {all, those with
 * TCP_NODELAY}. Written apart from the module's own socket walk, so that a fault there shows.
 */
std::pair<int, int> socketsToPort(int port);
