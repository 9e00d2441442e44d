#pragma once

#include <QByteArray>
#include <QString>

/**
 * Small real media files for the local cloud's demo account, drawn at start so that a
 * downloaded material opens in any viewer or player: a JPEG picture, a Motion-JPEG AVI video,
 * a PCM WAV tune and a one-page PDF.
 */
class SampleMedia
{
public:
    /** A 640x360 picture with @p title, in colours chosen by @p seed; @p format "JPEG" or "PNG". */
    static QByteArray picture(const QString &title, int seed, const char *format = "JPEG");
    /** Two seconds of 320x180 video at 12 frames per second with @p title. */
    static QByteArray video(const QString &title, int seed);
    /** A short tune, 22050 Hz mono 16-bit, notes chosen by @p seed. */
    static QByteArray audio(int seed);
    /** An A5 page with @p title and a small table. */
    static QByteArray document(const QString &title);

    /** Writes a 320x180 JPEG preview of the picture or video with @p title and @p seed. */
    static bool writeThumbnail(const QString &path, const QString &title, int seed);

    /** Writes the file of @p mediaType (0 picture, 1 video, 2 audio, 3 document) to @p path;
     *  a picture is a PNG when the path ends in ".png". Needs a QGuiApplication (fonts). */
    static bool write(const QString &path, int mediaType, const QString &title, int seed);
};
