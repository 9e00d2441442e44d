#include "samplemedia.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QLinearGradient>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QtEndian>

#include <cmath>

namespace {

void appendU16(QByteArray &out, quint16 v)
{
    char b[2];
    qToLittleEndian(v, b);
    out.append(b, 2);
}

void appendU32(QByteArray &out, quint32 v)
{
    char b[4];
    qToLittleEndian(v, b);
    out.append(b, 4);
}

// A RIFF chunk: four-character id, little-endian size, data padded to an even length.
QByteArray chunk(const char *id, const QByteArray &data)
{
    QByteArray out(id, 4);
    appendU32(out, quint32(data.size()));
    out += data;
    if (data.size() % 2)
        out.append('\0');
    return out;
}

QByteArray list(const char *type, const QByteArray &data)
{
    return chunk("LIST", QByteArray(type, 4) + data);
}

QImage frame(const QSize &size, const QString &title, int seed, double phase)
{
    QImage image(size, QImage::Format_RGB32);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    QLinearGradient sky(0, 0, size.width(), size.height());
    sky.setColorAt(0, QColor::fromHsv((seed * 47) % 360, 140, 230));
    sky.setColorAt(1, QColor::fromHsv((seed * 47 + 60) % 360, 200, 90));
    p.fillRect(image.rect(), sky);
    // A sun whose place moves with the phase, so that video frames differ.
    const double x = size.width() * (0.15 + 0.7 * phase);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(255, 236, 170, 220));
    p.drawEllipse(QPointF(x, size.height() * 0.38), size.height() * 0.12, size.height() * 0.12);
    p.setBrush(QColor(20, 30, 40, 150));
    p.drawRect(QRectF(0, size.height() * 0.72, size.width(), size.height() * 0.28));
    QFont font = p.font();
    font.setPixelSize(size.height() / 10);
    font.setBold(true);
    p.setFont(font);
    p.setPen(Qt::white);
    p.drawText(QRectF(0, size.height() * 0.72, size.width(), size.height() * 0.28), Qt::AlignCenter, title);
    return image;
}

QByteArray encoded(const QImage &image, const char *format, int quality = -1)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format, quality);
    return bytes;
}

} // namespace

QByteArray SampleMedia::picture(const QString &title, int seed, const char *format)
{
    return encoded(frame(QSize(640, 360), title, seed, 0.3), format, 88);
}

QByteArray SampleMedia::video(const QString &title, int seed)
{
    constexpr int width = 320;
    constexpr int height = 180;
    constexpr int fps = 12;
    constexpr int frames = 24;

    QByteArray movi;
    QByteArray index;
    quint32 largest = 0;
    for (int i = 0; i < frames; ++i) {
        const QByteArray data = encoded(frame(QSize(width, height), title, seed, double(i) / (frames - 1)), "JPEG", 80);
        // Index offsets count from the "movi" type field.
        const quint32 offset = quint32(4 + movi.size());
        movi += chunk("00dc", data);
        index += QByteArray("00dc", 4);
        appendU32(index, 0x10); // key frame
        appendU32(index, offset);
        appendU32(index, quint32(data.size()));
        largest = std::max(largest, quint32(data.size()));
    }

    QByteArray avih;
    appendU32(avih, 1000000 / fps);
    appendU32(avih, largest * fps);
    appendU32(avih, 0);
    appendU32(avih, 0x10); // has an index
    appendU32(avih, frames);
    appendU32(avih, 0);
    appendU32(avih, 1);
    appendU32(avih, largest);
    appendU32(avih, width);
    appendU32(avih, height);
    avih += QByteArray(16, '\0');

    QByteArray strh("vidsMJPG", 8);
    appendU32(strh, 0); // flags
    appendU16(strh, 0); // priority
    appendU16(strh, 0); // language
    appendU32(strh, 0); // initial frames
    appendU32(strh, 1); // scale
    appendU32(strh, fps); // rate
    appendU32(strh, 0); // start
    appendU32(strh, frames); // length
    appendU32(strh, largest); // suggested buffer size
    appendU32(strh, 0xFFFFFFFF);
    appendU32(strh, 0);
    appendU16(strh, 0);
    appendU16(strh, 0);
    appendU16(strh, width);
    appendU16(strh, height);

    QByteArray strf;
    appendU32(strf, 40);
    appendU32(strf, width);
    appendU32(strf, height);
    appendU16(strf, 1);
    appendU16(strf, 24);
    strf += QByteArray("MJPG", 4);
    appendU32(strf, width * height * 3);
    strf += QByteArray(16, '\0');

    const QByteArray header =
        list("hdrl", chunk("avih", avih) + list("strl", chunk("strh", strh) + chunk("strf", strf)));
    const QByteArray body = QByteArray("AVI ", 4) + header + list("movi", movi) + chunk("idx1", index);
    return chunk("RIFF", body);
}

QByteArray SampleMedia::audio(int seed)
{
    constexpr int rate = 22050;
    // A pentatonic phrase of eight notes, a quarter second each, with soft edges.
    static const double scale[] = {261.63, 293.66, 329.63, 392.00, 440.00, 523.25};
    QByteArray samples;
    for (int n = 0; n < 8; ++n) {
        const double f = scale[(seed * 3 + n * (seed % 4 + 1)) % 6];
        const int length = rate / 4;
        for (int i = 0; i < length; ++i) {
            const double edge = std::min(1.0, std::min(i, length - i) / 400.0);
            const double v = 0.35 * edge * std::sin(2 * M_PI * f * i / rate);
            appendU16(samples, quint16(qint16(v * 32767)));
        }
    }
    QByteArray format;
    appendU16(format, 1); // PCM
    appendU16(format, 1); // mono
    appendU32(format, rate);
    appendU32(format, rate * 2);
    appendU16(format, 2);
    appendU16(format, 16);
    return chunk("RIFF", QByteArray("WAVE", 4) + chunk("fmt ", format) + chunk("data", samples));
}

QByteArray SampleMedia::document(const QString &title)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    {
        QPdfWriter writer(&buffer);
        writer.setPageSize(QPageSize(QPageSize::A5));
        writer.setResolution(150);
        writer.setTitle(title);
        writer.setCreator(QStringLiteral("cloudmaterial-demo"));
        QPainter p(&writer);
        const int w = writer.width();
        QFont font = p.font();
        font.setPointSize(20);
        font.setBold(true);
        p.setFont(font);
        p.drawText(QRect(0, 0, w, 120), Qt::AlignLeft | Qt::AlignVCenter, title);
        font.setPointSize(11);
        font.setBold(false);
        p.setFont(font);
        const QStringList rows{QStringLiteral("Espresso\t2.40"), QStringLiteral("Flat white\t3.20"),
                               QStringLiteral("Green tea\t2.10"), QStringLiteral("Lemon cake\t2.90")};
        int y = 170;
        for (const QString &row : rows) {
            const QStringList cells = row.split(QLatin1Char('\t'));
            p.drawText(QRect(0, y, w * 2 / 3, 50), Qt::AlignLeft | Qt::AlignVCenter, cells[0]);
            p.drawText(QRect(w * 2 / 3, y, w / 3, 50), Qt::AlignRight | Qt::AlignVCenter, cells[1]);
            p.drawLine(0, y + 55, w, y + 55);
            y += 70;
        }
    }
    return bytes;
}

bool SampleMedia::write(const QString &path, int mediaType, const QString &title, int seed)
{
    QByteArray bytes;
    switch (mediaType) {
    case 0:
        bytes = picture(title, seed, path.endsWith(QLatin1String(".png")) ? "PNG" : "JPEG");
        break;
    case 1:
        bytes = video(title, seed);
        break;
    case 2:
        bytes = audio(seed);
        break;
    case 3:
        bytes = document(title);
        break;
    default:
        return false;
    }
    QFile file(path);
    return !bytes.isEmpty() && file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        && file.write(bytes) == bytes.size();
}

bool SampleMedia::writeThumbnail(const QString &path, const QString &title, int seed)
{
    return frame(QSize(320, 180), title, seed, 0.3).save(path, "JPEG", 85);
}
