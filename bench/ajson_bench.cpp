// Read and write throughput of our JSON record mapping against RapidJSON (DOM, then copied into
// the same structs), nlohmann/json (from_json/to_json) and, for reading, simdjson's on-demand
// API (walked field by field into the same structs), on a catalogue reply of 50 media shaped
// like the cloud's media list. Prints MB/s for each and our ratios.
//
//     ajson_bench [seconds per round]      (default 0.2; the best of 5 rounds counts)

#include "cloudmaterial/protocol/ajson.hpp"

#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace catalogue {

struct MediaEntity
{
    std::string mid;
    std::string size;
    std::string height;
    std::string width;
    std::string thumb_image_url;
    std::string unique;
    std::string duration_time;
    std::string video_support_platform;
};
AJSON(MediaEntity, mid, size, height, width, thumb_image_url, unique, duration_time, video_support_platform)

struct Media
{
    std::string mid;
    std::string oid;
    std::string create_uid;
    std::string approvalStatus;
    std::string mediaName;
    std::string mediaType;
    MediaEntity media_entity;
    std::string workgroup;
    std::string isMediaSupported;
    std::string ossDir;
    std::string bigPictureAddress;
    std::string pictureAddress;
    std::string pictureDafaultAddress;
};
AJSON(Media, mid, oid, create_uid, approvalStatus, mediaName, mediaType, media_entity, workgroup, isMediaSupported,
      ossDir, bigPictureAddress, pictureAddress, pictureDafaultAddress)

struct MediaListData
{
    std::int32_t count = 0;
    std::vector<Media> mediaList;
};
AJSON(MediaListData, count, mediaList)

struct MediaListReply
{
    std::int32_t http_code = 0;
    MediaListData data;
    std::string status;
};
AJSON(MediaListReply, http_code, data, status)

// nlohmann/json finds these by argument-dependent lookup.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MediaEntity, mid, size, height, width, thumb_image_url, unique, duration_time,
                                   video_support_platform)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Media, mid, oid, create_uid, approvalStatus, mediaName, mediaType, media_entity,
                                   workgroup, isMediaSupported, ossDir, bigPictureAddress, pictureAddress,
                                   pictureDafaultAddress)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MediaListData, count, mediaList)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MediaListReply, http_code, data, status)

// The string members in the order the cloud writes them, for the hand-written readers and
// writers of the other libraries: a Media's "media_entity" object stands between its head and
// its tail.
template<class Record>
using StringField = std::pair<const char *, std::string Record::*>;
const StringField<Media> mediaHead[] = {
    {"mid", &Media::mid},
    {"oid", &Media::oid},
    {"create_uid", &Media::create_uid},
    {"approvalStatus", &Media::approvalStatus},
    {"mediaName", &Media::mediaName},
    {"mediaType", &Media::mediaType},
};
const StringField<MediaEntity> entityFields[] = {
    {"mid", &MediaEntity::mid},
    {"size", &MediaEntity::size},
    {"height", &MediaEntity::height},
    {"width", &MediaEntity::width},
    {"thumb_image_url", &MediaEntity::thumb_image_url},
    {"unique", &MediaEntity::unique},
    {"duration_time", &MediaEntity::duration_time},
    {"video_support_platform", &MediaEntity::video_support_platform},
};
const StringField<Media> mediaTail[] = {
    {"workgroup", &Media::workgroup},
    {"isMediaSupported", &Media::isMediaSupported},
    {"ossDir", &Media::ossDir},
    {"bigPictureAddress", &Media::bigPictureAddress},
    {"pictureAddress", &Media::pictureAddress},
    {"pictureDafaultAddress", &Media::pictureDafaultAddress},
};

} // namespace catalogue

namespace {

using namespace catalogue;

std::string hexId(unsigned seed, int length)
{
    static const char digits[] = "0123456789abcdef";
    std::string id;
    std::uint32_t x = seed * 2654435761u + 12345u;
    for (int i = 0; i < length; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        id.push_back(digits[x & 15]);
    }
    return id;
}

// A first page of the catalogue as the cloud returns it: 50 media, newest first.
MediaListReply makeReply()
{
    static const char *const names[] = {"\xE5\xAE\xA3\xE4\xBC\xA0\xE7\x89\x87", // promotional film
                                        "lobby-loop",
                                        "Spring campaign",
                                        "\xE6\xB5\xB7\xE6\x8A\xA5", // poster
                                        "menu board",
                                        "welcome"};
    static const char *const extensions[] = {".mp4", ".jpg", ".png", ".mp3"};
    MediaListReply reply;
    reply.http_code = 200;
    reply.status = "success";
    reply.data.count = 137;
    for (unsigned i = 0; i < 50; ++i) {
        Media m;
        m.mid = hexId(i, 32);
        m.oid = std::to_string(100200300 + i % 3);
        m.create_uid = std::to_string(5000123 + i % 7);
        m.approvalStatus = i % 5 == 0 ? "1" : "2";
        const char *ext = extensions[i % 4];
        m.mediaName = std::string(names[i % 6]) + "_" + std::to_string(i) + ext;
        m.mediaType = i % 4 == 0 ? "1" : i % 4 == 3 ? "3" : "0";
        const std::string base = "https://oss.cirro.invalid/m/" + m.mid;
        m.media_entity.mid = m.mid;
        m.media_entity.size = std::to_string(1048576 + i * 7919 * 131);
        m.media_entity.height = i % 4 == 3 ? "0" : "1080";
        m.media_entity.width = i % 4 == 3 ? "0" : "1920";
        m.media_entity.thumb_image_url = base + "_t.jpg?x-oss-process=w_320";
        m.media_entity.unique = hexId(i + 1000, 40);
        m.media_entity.duration_time = i % 4 == 0 || i % 4 == 3 ? "00:02:" + std::to_string(10 + i) : "";
        m.media_entity.video_support_platform = "0,1,2";
        m.workgroup = i % 2 ? "default" : "";
        m.isMediaSupported = "1";
        m.ossDir = base + ext;
        m.bigPictureAddress = base + "_b.jpg";
        m.pictureAddress = base + "_p.jpg";
        m.pictureDafaultAddress = base + "_d.jpg";
        reply.data.mediaList.push_back(std::move(m));
    }
    return reply;
}

// ----- RapidJSON: DOM parse, then copy into the structs; writing with its Writer.

void copyString(const rapidjson::Value &object, const char *key, std::string &out)
{
    const auto it = object.FindMember(key);
    if (it != object.MemberEnd() && it->value.IsString())
        out.assign(it->value.GetString(), it->value.GetStringLength());
}

void copyInt(const rapidjson::Value &object, const char *key, std::int32_t &out)
{
    const auto it = object.FindMember(key);
    if (it != object.MemberEnd() && it->value.IsInt())
        out = it->value.GetInt();
}

bool rapidRead(const std::string &text, MediaListReply &reply)
{
    rapidjson::Document doc;
    doc.Parse(text.data(), text.size());
    if (doc.HasParseError() || !doc.IsObject())
        return false;
    copyInt(doc, "http_code", reply.http_code);
    copyString(doc, "status", reply.status);
    const auto data = doc.FindMember("data");
    if (data == doc.MemberEnd() || !data->value.IsObject())
        return true;
    copyInt(data->value, "count", reply.data.count);
    const auto list = data->value.FindMember("mediaList");
    if (list == data->value.MemberEnd() || !list->value.IsArray())
        return true;
    for (const rapidjson::Value &v : list->value.GetArray()) {
        Media m;
        for (const auto &[key, member] : mediaHead)
            copyString(v, key, m.*member);
        const auto e = v.FindMember("media_entity");
        if (e != v.MemberEnd() && e->value.IsObject()) {
            for (const auto &[key, member] : entityFields)
                copyString(e->value, key, m.media_entity.*member);
        }
        for (const auto &[key, member] : mediaTail)
            copyString(v, key, m.*member);
        reply.data.mediaList.push_back(std::move(m));
    }
    return true;
}

template<class W>
void put(W &w, const char *key, const std::string &value)
{
    w.Key(key);
    w.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

std::string rapidWrite(const MediaListReply &reply)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    w.StartObject();
    w.Key("http_code");
    w.Int(reply.http_code);
    w.Key("data");
    w.StartObject();
    w.Key("count");
    w.Int(reply.data.count);
    w.Key("mediaList");
    w.StartArray();
    for (const Media &m : reply.data.mediaList) {
        w.StartObject();
        for (const auto &[key, member] : mediaHead)
            put(w, key, m.*member);
        w.Key("media_entity");
        w.StartObject();
        for (const auto &[key, member] : entityFields)
            put(w, key, m.media_entity.*member);
        w.EndObject();
        for (const auto &[key, member] : mediaTail)
            put(w, key, m.*member);
        w.EndObject();
    }
    w.EndArray();
    w.EndObject();
    put(w, "status", reply.status);
    w.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

// ----- simdjson on-demand: each member asked for by name, in the order the records declare
// them. operator[] goes on from where the last member was found and wraps around, so another
// key order reads the same, only slower; unknown keys are skipped, as ajson and RapidJSON do.

namespace ondemand = simdjson::ondemand;

// A missing member leaves the field as it was, as the other readers do; a wrong type is an error.
template<class Object>
simdjson::error_code readString(Object &object, const char *key, std::string &out)
{
    std::string_view text;
    const auto error = object[key].get_string().get(text);
    if (error == simdjson::NO_SUCH_FIELD)
        return simdjson::SUCCESS;
    if (!error)
        out.assign(text);
    return error;
}

template<class Object>
simdjson::error_code readInt(Object &object, const char *key, std::int32_t &out)
{
    std::int64_t number = 0;
    const auto error = object[key].get_int64().get(number);
    if (error == simdjson::NO_SUCH_FIELD)
        return simdjson::SUCCESS;
    if (!error)
        out = static_cast<std::int32_t>(number);
    return error;
}

template<class Object, class Record, std::size_t N>
simdjson::error_code readStrings(Object &object, Record &record, const StringField<Record> (&fields)[N])
{
    for (const auto &[key, member] : fields) {
        if (auto error = readString(object, key, record.*member))
            return error;
    }
    return simdjson::SUCCESS;
}

simdjson::error_code readMedia(ondemand::object object, Media &m)
{
    if (auto error = readStrings(object, m, mediaHead))
        return error;
    ondemand::object entity;
    auto error = object["media_entity"].get_object().get(entity);
    if (!error)
        error = readStrings(entity, m.media_entity, entityFields);
    if (error && error != simdjson::NO_SUCH_FIELD)
        return error;
    return readStrings(object, m, mediaTail);
}

simdjson::error_code readList(ondemand::object object, MediaListData &data)
{
    if (auto error = readInt(object, "count", data.count))
        return error;
    ondemand::array list;
    if (auto error = object["mediaList"].get_array().get(list))
        return error == simdjson::NO_SUCH_FIELD ? simdjson::SUCCESS : error;
    for (auto element : list) {
        ondemand::object item;
        if (auto error = element.get_object().get(item))
            return error;
        Media m;
        if (auto error = readMedia(item, m))
            return error;
        data.mediaList.push_back(std::move(m));
    }
    return simdjson::SUCCESS;
}

// The parser is reused from run to run and the input carries the padding simdjson reads past
// its end, as a reader that owns its receive buffer would arrange.
bool simdRead(ondemand::parser &parser, const simdjson::padded_string &text, MediaListReply &reply)
{
    ondemand::document doc;
    if (parser.iterate(text).get(doc) || readInt(doc, "http_code", reply.http_code))
        return false;
    ondemand::object data;
    auto error = doc["data"].get_object().get(data);
    if (!error)
        error = readList(data, reply.data);
    if (error && error != simdjson::NO_SUCH_FIELD)
        return false;
    return !readString(doc, "status", reply.status);
}

// ----- Measuring

volatile std::size_t sink;

struct Subject
{
    std::function<std::size_t()> run;
    double best = 0.0; // MB/s
};

// Throughput in MB/s of one round of at least `seconds`.
double measureOnce(double seconds, std::size_t bytesPerRun, const std::function<std::size_t()> &run)
{
    using clock = std::chrono::steady_clock;
    std::size_t runs = 0;
    std::size_t check = 0;
    const clock::time_point start = clock::now();
    double elapsed = 0.0;
    do {
        for (int i = 0; i < 16; ++i)
            check += run();
        runs += 16;
        elapsed = std::chrono::duration<double>(clock::now() - start).count();
    } while (elapsed < seconds);
    sink = check;
    return static_cast<double>(bytesPerRun) * static_cast<double>(runs) / elapsed / 1e6;
}

// The best of five rounds for each subject. The subjects take turns within a round, so that
// a busy machine slows them alike and the ratios stay meaningful.
void measure(double seconds, std::size_t bytesPerRun, std::vector<Subject> &subjects)
{
    for (int round = 0; round < 5; ++round) {
        for (Subject &s : subjects)
            s.best = std::max(s.best, measureOnce(seconds, bytesPerRun, s.run));
    }
}

std::string ours(const MediaListReply &reply)
{
    ajson::string_stream out;
    ajson::save_to(out, reply);
    return out.str();
}

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "ajson_bench: %s\n", what);
    std::exit(1);
}

} // namespace

int main(int argc, char **argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0.2;
    if (!(seconds > 0.0))
        fail("the round length must be a positive number of seconds");

    const MediaListReply reply = makeReply();
    const std::string text = ours(reply);

    // All three must read the same text into the same records, or the figures mean nothing.
    MediaListReply a;
    ajson::load_from_buff(a, text.data(), text.size());
    MediaListReply b;
    if (!rapidRead(text, b))
        fail("RapidJSON rejected the catalogue");
    const MediaListReply c = nlohmann::json::parse(text).get<MediaListReply>();
    ondemand::parser parser;
    const simdjson::padded_string padded(text);
    MediaListReply f;
    if (!simdRead(parser, padded, f))
        fail("simdjson rejected the catalogue");
    if (ours(a) != text || ours(b) != text || ours(c) != text || ours(f) != text)
        fail("the four readers disagree");
    MediaListReply d;
    ajson::load_from_buff(d, rapidWrite(reply).c_str());
    MediaListReply e;
    const std::string nlohmannText = nlohmann::json(reply).dump();
    ajson::load_from_buff(e, nlohmannText.c_str());
    if (ours(d) != text || ours(e) != text)
        fail("the writers disagree");

    std::printf("catalogue reply: %zu media, %zu bytes; best of 5 rounds of %.2f s each\n", reply.data.mediaList.size(),
                text.size(), seconds);
#ifndef NDEBUG
    std::printf("note: built without NDEBUG; use a release build for figures that mean anything\n");
#endif

    const std::size_t n = text.size();
    std::vector<Subject> reads = {
        {[&] {
            MediaListReply r;
            ajson::load_from_buff(r, text.data(), text.size());
            return r.data.mediaList.size();
        }},
        {[&] {
            MediaListReply r;
            rapidRead(text, r);
            return r.data.mediaList.size();
        }},
        {[&] { return nlohmann::json::parse(text).get<MediaListReply>().data.mediaList.size(); }},
        {[&] {
            MediaListReply r;
            simdRead(parser, padded, r);
            return r.data.mediaList.size();
        }},
    };
    measure(seconds, n, reads);
    // Write rates are counted over the same byte count, so they compare records per second.
    std::vector<Subject> writes = {
        {[&] {
            ajson::string_stream out;
            ajson::save_to(out, reply);
            return out.str().size();
        }},
        {[&] { return rapidWrite(reply).size(); }},
        {[&] { return nlohmann::json(reply).dump().size(); }},
    };
    measure(seconds, n, writes);
    const double oursRead = reads[0].best;
    const double rapidReadRate = reads[1].best;
    const double nlohmannRead = reads[2].best;
    const double simdjsonRead = reads[3].best;
    const double oursWrite = writes[0].best;
    const double rapidWriteRate = writes[1].best;
    const double nlohmannWrite = writes[2].best;

    std::printf("%-10s %12s %12s\n", "", "read MB/s", "write MB/s");
    std::printf("%-10s %12.1f %12.1f\n", "ajson", oursRead, oursWrite);
    std::printf("%-10s %12.1f %12.1f\n", "rapidjson", rapidReadRate, rapidWriteRate);
    std::printf("%-10s %12.1f %12.1f\n", "nlohmann", nlohmannRead, nlohmannWrite);
    std::printf("%-10s %12.1f %12s   (%s kernel)\n", "simdjson", simdjsonRead, "-",
                simdjson::get_active_implementation()->name().c_str());
    std::printf("read  ajson/rapidjson %.2fx (target 1.5x)\n", oursRead / rapidReadRate);
    std::printf("read  ajson/nlohmann  %.2fx (target 8x)\n", oursRead / nlohmannRead);
    std::printf("read  ajson/simdjson  %.2fx (simdjson on-demand; no target yet)\n", oursRead / simdjsonRead);
    std::printf("write ajson/rapidjson %.2fx\n", oursWrite / rapidWriteRate);
    std::printf("write ajson/nlohmann  %.2fx (target 3x)\n", oursWrite / nlohmannWrite);
    return 0;
}
