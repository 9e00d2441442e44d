#pragma once

#include <cstdint>

namespace talvor::cloudmaterial {

/** A material's local copy, and the outcome of a download. */
enum DownloadStatus : std::int32_t {
    NotAllowed = 0, // not approved: may not be downloaded
    Allowed = 1, // may be downloaded; no local copy
    Downloading = 2,
    Successed = 3, // the local file is complete
    Failed = 4,
};

} // namespace talvor::cloudmaterial
