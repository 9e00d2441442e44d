#include "pwspdlog/spdlogapplication.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

namespace PW {

SpdlogBase::SpdlogBase(const std::string &name)
    : m_logger(std::make_shared<spdlog::logger>(name, std::make_shared<spdlog::sinks::stderr_color_sink_mt>()))
{
    m_logger->set_level(spdlog::level::info);
    m_logger->flush_on(spdlog::level::warn);
}

SpdlogBase::~SpdlogBase() = default;

std::shared_ptr<spdlog::logger> SpdlogBase::logger() const
{
    return m_logger;
}

bool SpdlogBase::addRotatingFile(const std::string &path)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    try {
        // spdlog's sink list is not guarded against concurrent logging; the host adds
        // its file once at start-up, before the module logs from other threads.
        m_logger->sinks().push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, 5 * 1024 * 1024, 5));
        return true;
    } catch (const spdlog::spdlog_ex &e) {
        m_logger->error("cannot open log file {}: {}", path, e.what());
        return false;
    }
}

SpdlogApplication::SpdlogApplication()
    : SpdlogBase("app")
{
}

SpdlogApplication &SpdlogApplication::instance()
{
    static SpdlogApplication app;
    return app;
}

} // namespace PW
