#pragma once

#include "cloudmaterial/protocol/downloadstatus.h"
#include "cloudmaterial/stdstringmetatype_p.h"

#include <QMetaType>

#include <cstdint>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

/** The cloud's review state of a material, carried as the cloud's own number. */
enum ApprovalStatus : std::int32_t {
    PendingApproval = 1,
    Approved = 2,
    Reject = 3,
};

/**
 * Approval values whose materials may be in the material folder: approved (2), and 5, the other
 * value the cloud approves a material with. Only their local copies are looked for.
 */
inline bool mayHaveLocalCopy(std::int32_t approval)
{
    return approval == Approved || approval == 5;
}

/** The cloud's media type codes. */
enum class MediaType : std::int32_t {
    Picture = 0,
    Video = 1,
    Audio = 2,
    Document = 3,
};

/** What the last word about the catalogue was, so the panel can tell the user. */
enum class CatalogueState : std::int32_t {
    LoggedOut = 0, // no session: nothing to list
    Reachable = 1, // logged in, and the last refresh reached the cloud (or none has failed yet)
    Unreachable = 2, // the last refresh could not reach the cloud; the known list is kept
};

/** One material as the panel shows it. */
struct CloudMaterialModel
{
    std::string mid; // the material id, compared byte for byte
    std::string mediaName; // display name and local file name
    std::int32_t mediaType = 0; // a MediaType, or a code the module does not know
    std::int32_t approvalStatus = 0;
    std::int32_t downloadStatus = NotAllowed;
    std::string thumbnailUrl;
    std::int64_t size = 0; // bytes
    std::string resolution; // "<width>x<height>"
};

/** Registers the types that the material signals carry across threads. */
void registerCloudMaterialMetaTypes();

} // namespace talvor::cloudmaterial

Q_DECLARE_METATYPE(talvor::cloudmaterial::DownloadStatus)
Q_DECLARE_METATYPE(talvor::cloudmaterial::ApprovalStatus)
Q_DECLARE_METATYPE(talvor::cloudmaterial::CatalogueState)
Q_DECLARE_METATYPE(talvor::cloudmaterial::CloudMaterialModel)
Q_DECLARE_METATYPE(std::vector<talvor::cloudmaterial::CloudMaterialModel>)
Q_DECLARE_METATYPE(std::vector<std::string>)
