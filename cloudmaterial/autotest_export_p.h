#pragma once

#include "rxcloudmaterial_export.h"

// Marks internals that the autotests reach. Exported only from builds with the autotests, so a
// host's copy of the library offers nothing beyond the installed headers.
#if defined(RXCM_AUTOTESTS)
#define RXCLOUDMATERIAL_AUTOTEST_EXPORT RXCLOUDMATERIAL_EXPORT
#else
#define RXCLOUDMATERIAL_AUTOTEST_EXPORT
#endif
