#pragma once

#include "cloudmaterial/sessionticket.h"
#include "cloudmaterial/stdstringmetatype_p.h"

#include <QObject>

#include <functional>
#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * The files of the material folder: downloads into it, one per file whoever asks (this machine's
 * panel or a group's clients), look-ups of a file, and removal of a local copy. Names from the
 * cloud are used only when they stay inside the folder.
 *
 * Owned by the material controller on the Qt thread, where every call is made and every signal is
 * emitted. Transfers and look-ups run on threads of its own (so that an existence answer never
 * waits for a transfer, and a long transfer never holds up the next one) on copies, and report
 * back queued. shutdown() stops them; nothing is reported after it.
 */
class MaterialFolder : public QObject
{
    Q_OBJECT

public:
    explicit MaterialFolder(QObject *parent = nullptr);
    /** Shuts down first. */
    ~MaterialFolder() override;

    void setPath(const std::string &folder);
    std::string path() const;
    /** The file @p name in the folder. */
    std::string filePath(const std::string &name) const;

    /** Looks for the file @p name; fileChecked() follows unless @p ticket has ended meanwhile. */
    void lookFor(const std::string &id, const std::string &name, const SessionTicket &ticket);
    /** Tells @p answer, on this thread, whether the file @p name is there; not after shutdown(). */
    void whenChecked(const std::string &name, std::function<void(bool present)> answer);
    /**
     * Downloads @p address into the file @p name for the material @p id. A file already there is
     * not fetched again. A second request for a file being downloaded from the same address joins
     * it; one from another address, or for a name that would leave the folder, is refused.
     * transferFinished() follows for every material that asked.
     */
    void download(const std::string &address, const std::string &id, const std::string &name);
    bool isDownloading(const std::string &name) const;
    /** Removes the file @p name and the ".temp" a failed download left; false when one could not go. */
    bool removeCopy(const std::string &name);

    /** Stops running transfers (removing their ".temp" files) and joins the threads. Safe to call again. */
    void shutdown();

    /** True for a plain file name that stays inside the folder. */
    static bool isSafeFileName(const std::string &name);

Q_SIGNALS:
    void fileChecked(const std::string &id, const std::string &name, bool exists);
    /** Bytes received and the total (-1 if unknown), for each material waiting on the transfer. */
    void transferProgress(const std::string &id, qint64 received, qint64 total);
    void transferFinished(const std::string &id, const std::string &name, bool downloaded);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
