#pragma once

#include <atomic>
#include <memory>

namespace talvor::cloudmaterial {

/**
 * Tells work started for a session whether that session still runs.
 *
 * A ticket is a copyable, read-only view of one session; work carries it across threads and
 * asks isLive() before each step. Only the Session that issued it ends it, on its owner's
 * thread; any thread may ask. A default-constructed ticket belongs to no session and is never live.
 */
class SessionTicket
{
public:
    SessionTicket() = default;

    bool isLive() const { return m_live && m_live->load(std::memory_order_acquire); }

private:
    friend class Session;
    explicit SessionTicket(std::shared_ptr<const std::atomic<bool>> live)
        : m_live(std::move(live))
    {
    }

    std::shared_ptr<const std::atomic<bool>> m_live;
};

/**
 * Issues tickets: begin() ends the current session and starts a new one, end() ends it.
 * Lives on one thread (its owner's); the tickets it hands out may go anywhere.
 */
class Session
{
public:
    Session() = default;
    ~Session() { end(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    SessionTicket begin()
    {
        end();
        m_live = std::make_shared<std::atomic<bool>>(true);
        return ticket();
    }

    void end()
    {
        if (m_live)
            m_live->store(false, std::memory_order_release);
        m_live.reset();
    }

    /** The running session's ticket; a never-live one when none runs. */
    SessionTicket ticket() const { return m_live ? SessionTicket(m_live) : SessionTicket(); }
    bool isRunning() const { return m_live != nullptr; }

private:
    std::shared_ptr<std::atomic<bool>> m_live;
};

} // namespace talvor::cloudmaterial
