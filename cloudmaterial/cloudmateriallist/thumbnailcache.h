#pragma once

#include "cloudmaterial/sessionticket.h"
#include "cloudmaterial/stdstringmetatype_p.h"

#include <QObject>
#include <QStringList>

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * The materials' previews on disk: where each one is kept, fetching the missing ones, and
 * removing those of materials that went. A preview is fetched once and kept; it is kept beside
 * the materials, in a hidden folder of the material folder, so that it goes when the host clears
 * that folder; a machine without a material folder (a group's proxy client) keeps them in the
 * user's cache.
 *
 * Owned by the material controller on the Qt thread, where every call is made and
 * thumbnailReady() is emitted. Fetches and removals run on a thread of its own, so that long
 * downloads never leave the panel without previews; they touch nothing but their files.
 */
class ThumbnailCache : public QObject
{
    Q_OBJECT

public:
    explicit ThumbnailCache(QObject *parent = nullptr);
    /** Shuts down first. */
    ~ThumbnailCache() override;

    void setMaterialFolder(const std::string &folder);
    /** Previews are for the panel: until one is wanted, ensure() fetches nothing. */
    void setWanted(bool wanted);
    bool isWanted() const;

    /** The file of a material's preview; empty when there is nowhere to keep it. */
    std::string path(const std::string &id, const std::string &thumbnailUrl) const;

    /**
     * Fetches the preview of @p id unless it is on its way already. thumbnailReady() follows
     * when it was fetched, or with @p announce when it was on disk already; nothing follows
     * once @p ticket has ended.
     */
    void ensure(const std::string &id, const std::string &thumbnailUrl, const SessionTicket &ticket, bool announce);
    /** A new session asks for every preview anew. */
    void forgetPending();
    /** Removes the files, in the background. */
    void remove(const QStringList &files);

    /** Stops a running fetch (removing its ".temp") and joins the thread. Safe to call again. */
    void shutdown();

Q_SIGNALS:
    void thumbnailReady(const std::string &id, const std::string &path);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
