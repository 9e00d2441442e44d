#pragma once

#include <QObject>
#include <QString>

#include <memory>

/**
 * Watches the local cloud until it has bound a device: cloudsim lists the binding replies it
 * sent (GET /control/mqtt), and a successful one for the serial number means the device is
 * bound, whichever machine of the group runs its messaging. The cloud's CA must be trusted.
 */
class BindingWatch : public QObject
{
    Q_OBJECT

public:
    explicit BindingWatch(const QString &cloudUrl, QObject *parent = nullptr);
    ~BindingWatch() override;

    /** Asks the cloud twice a second until the device @p serialNumber is bound. */
    void watch(const QString &serialNumber);
    bool isBound() const;

Q_SIGNALS:
    void bound(const QString &serialNumber);

private:
    class Private;
    std::unique_ptr<Private> const d;
};
