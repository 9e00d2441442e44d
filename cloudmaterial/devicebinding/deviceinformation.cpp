#include "deviceinformation.h"

#include <QHostAddress>
#include <QNetworkAddressEntry>
#include <QNetworkInterface>
#include <QStorageInfo>
#include <QtGlobal>

#include <stdexcept>

#ifdef Q_OS_WIN
#include <audioclient.h>
#include <endpointvolume.h>
#include <mmdeviceapi.h>
#include <windows.h>
#elif defined(Q_OS_LINUX)
#include <alsa/asoundlib.h>
#endif

namespace talvor::cloudmaterial {

namespace {

std::vector<InterfaceFacts> interfaceFacts()
{
    std::vector<InterfaceFacts> facts;
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &iface : interfaces) {
        InterfaceFacts f;
        f.valid = iface.isValid();
        f.loopback = iface.flags().testFlag(QNetworkInterface::IsLoopBack);
        f.running = iface.flags().testFlag(QNetworkInterface::IsRunning);
        f.hardwareAddress = iface.hardwareAddress();
        const auto entries = iface.addressEntries();
        for (const QNetworkAddressEntry &entry : entries)
            f.addresses.push_back(entry.ip());
        facts.push_back(std::move(f));
    }
    return facts;
}

} // namespace

std::string macAddressFrom(const std::vector<InterfaceFacts> &interfaces)
{
    for (const InterfaceFacts &iface : interfaces) {
        if (!iface.valid || iface.loopback)
            continue;
        return iface.hardwareAddress.toUpper().toStdString();
    }
    return {};
}

std::string ipAddressFrom(const std::vector<InterfaceFacts> &interfaces)
{
    const QHostAddress loopback(QHostAddress::LocalHost);
    for (const InterfaceFacts &iface : interfaces) {
        if (!iface.running)
            continue;
        for (const QHostAddress &ip : iface.addresses) {
            // The first hit is the answer; there is no ranking between interfaces.
            if (ip.protocol() == QAbstractSocket::IPv4Protocol && ip != loopback)
                return ip.toString().toStdString();
        }
    }
    return "0.0.0.0";
}

std::string localMacAddress()
{
    return macAddressFrom(interfaceFacts());
}

std::string localIpAddress()
{
    return ipAddressFrom(interfaceFacts());
}

std::vector<DiskJson> diskListFrom(const std::vector<VolumeFacts> &volumes)
{
    std::vector<DiskJson> disks;
    for (const VolumeFacts &v : volumes) {
        if (!v.valid || !v.ready)
            continue;
        // The file centre's own volume is not user storage; the cloud must not list it.
        if (v.name.toLower() == QLatin1String("filecenter"))
            continue;
        DiskJson disk;
        disk.capability = v.bytesTotal;
        disk.used = v.bytesTotal - v.bytesAvailable;
        disk.name = v.name.toStdString();
        disk.diskName = QString(v.rootPath).remove(QStringLiteral(":/")).toStdString();
        disk.type = v.fileSystemType == QByteArrayLiteral("exFAT") ? "external" : "local";
        disks.push_back(std::move(disk));
    }
    return disks;
}

std::vector<DiskJson> diskList()
{
    std::vector<VolumeFacts> volumes;
    const auto mounted = QStorageInfo::mountedVolumes();
    for (const QStorageInfo &info : mounted) {
        VolumeFacts v;
        v.valid = info.isValid();
        v.ready = info.isReady();
        v.name = info.displayName();
        v.rootPath = info.rootPath();
        v.fileSystemType = info.fileSystemType();
        v.bytesTotal = info.bytesTotal();
        v.bytesAvailable = info.bytesAvailable();
        volumes.push_back(std::move(v));
    }
    return diskListFrom(volumes);
}

std::int32_t volumeScalarToPercent(float scalar)
{
    return static_cast<std::int32_t>(scalar * 100);
}

std::int32_t volumeRangeToPercent(long min, long max, long value)
{
    if (max <= min)
        return 0;
    return static_cast<std::int32_t>((value - min) * 100 / (max - min));
}

#ifdef Q_OS_WIN

std::int32_t systemVolume()
{
    // Interfaces obtained before a failure are deliberately not released: the caller only
    // learns which step failed, and COM stays initialised for the thread.
    if (FAILED(CoInitialize(nullptr)))
        throw std::runtime_error("CoInitialize");

    IMMDeviceEnumerator *pDeviceEnumerator = nullptr;
    HRESULT hr = CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, __uuidof(IMMDeviceEnumerator),
                                  reinterpret_cast<void **>(&pDeviceEnumerator));
    if (FAILED(hr))
        throw std::runtime_error("CoCreateInstance");
    if (!pDeviceEnumerator)
        throw std::runtime_error("pDeviceEnumerator is nullptr");

    IMMDevice *pDevice = nullptr;
    hr = pDeviceEnumerator->GetDefaultAudioEndpoint(eRender, eMultimedia, &pDevice);
    if (FAILED(hr))
        throw std::runtime_error("GetDefaultAudioEndpoint");
    if (!pDevice)
        throw std::runtime_error("pDevice is nullptr");

    IAudioEndpointVolume *pAudioEndpointVolume = nullptr;
    hr = pDevice->Activate(__uuidof(IAudioEndpointVolume), CLSCTX_ALL, nullptr,
                           reinterpret_cast<void **>(&pAudioEndpointVolume));
    if (FAILED(hr))
        throw std::runtime_error("pDevice->Active");
    if (!pAudioEndpointVolume)
        throw std::runtime_error("pAudioEndpointVolume is nullptr");

    // Not used further, but a device that cannot render counts as a failure.
    IAudioClient *pAudioClient = nullptr;
    hr = pDevice->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr, reinterpret_cast<void **>(&pAudioClient));
    if (FAILED(hr))
        throw std::runtime_error("pDevice->Active");
    if (!pAudioClient)
        throw std::runtime_error("pAudioClient is nullptr");

    float level = 0.0f;
    pAudioEndpointVolume->GetMasterVolumeLevelScalar(&level);
    pAudioClient->Release();
    pAudioEndpointVolume->Release();
    pDevice->Release();
    pDeviceEnumerator->Release();
    return volumeScalarToPercent(level);
}

#elif defined(Q_OS_LINUX)

namespace {

// Closes the mixer however the read ends.
struct MixerHandle
{
    snd_mixer_t *mixer = nullptr;
    ~MixerHandle()
    {
        if (mixer)
            snd_mixer_close(mixer);
    }
};

} // namespace

std::int32_t systemVolume()
{
    MixerHandle handle;
    if (snd_mixer_open(&handle.mixer, 0) < 0 || !handle.mixer)
        throw std::runtime_error("snd_mixer_open");
    if (snd_mixer_attach(handle.mixer, "default") < 0)
        throw std::runtime_error("snd_mixer_attach");
    if (snd_mixer_selem_register(handle.mixer, nullptr, nullptr) < 0)
        throw std::runtime_error("snd_mixer_selem_register");
    if (snd_mixer_load(handle.mixer) < 0)
        throw std::runtime_error("snd_mixer_load");

    snd_mixer_selem_id_t *sid = nullptr;
    snd_mixer_selem_id_alloca(&sid);
    snd_mixer_selem_id_set_index(sid, 0);
    snd_mixer_selem_id_set_name(sid, "Master");
    snd_mixer_elem_t *elem = snd_mixer_find_selem(handle.mixer, sid);
    if (!elem)
        throw std::runtime_error("Master not found");

    long min = 0;
    long max = 0;
    if (snd_mixer_selem_get_playback_volume_range(elem, &min, &max) < 0)
        throw std::runtime_error("snd_mixer_selem_get_playback_volume_range");
    long value = 0;
    if (snd_mixer_selem_get_playback_volume(elem, SND_MIXER_SCHN_FRONT_LEFT, &value) < 0)
        throw std::runtime_error("snd_mixer_selem_get_playback_volume");
    return volumeRangeToPercent(min, max, value);
}

#else

std::int32_t systemVolume()
{
    throw std::runtime_error("no system mixer on this platform");
}

#endif

} // namespace talvor::cloudmaterial
