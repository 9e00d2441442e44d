#pragma once

#include "cloudmaterial/protocol/ajsonex.h"

#include <cstdint>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

// The cloud sends many scalars as a number one day and as a string the next:
// ajson::text takes either and keeps the text.

/** The file behind a material. */
struct MediaEntity
{
    std::string mid;
    ajson::text size; // bytes
    ajson::text height;
    ajson::text width;
    std::string thumb_image_url;
    ajson::text unique;
    ajson::text duration_time;
    ajson::text video_support_platform;
};
AJSON(MediaEntity, mid, size, height, width, thumb_image_url, unique, duration_time, video_support_platform)

/** One material of the catalogue, as the cloud sends it. */
struct MediaInfo
{
    std::string mid;
    ajson::text oid;
    ajson::text create_uid;
    ajson::text approvalStatus;
    std::string mediaName;
    ajson::text mediaType;
    MediaEntity media_entity;
    ajson::text workgroup;
    ajson::text isMediaSupported;
    std::string ossDir; // the download URL, used as it stands
    std::string bigPictureAddress;
    std::string pictureAddress;
    std::string pictureDafaultAddress; // the cloud's own spelling
};
AJSON(MediaInfo, mid, oid, create_uid, approvalStatus, mediaName, mediaType, media_entity, workgroup, isMediaSupported,
      ossDir, bigPictureAddress, pictureAddress, pictureDafaultAddress)

struct MediaListData
{
    std::int32_t count = 0; // media on the account, not only those listed
    std::vector<MediaInfo> mediaList;
};
AJSON(MediaListData, count, mediaList)

/** The reply to the catalogue request. */
struct MediaListReply
{
    std::int32_t http_code = 0;
    MediaListData data;
    ajson::text status;
};
AJSON(MediaListReply, http_code, data, status)

} // namespace talvor::cloudmaterial
