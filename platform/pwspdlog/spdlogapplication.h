#pragma once

#include <spdlog/logger.h>

#include <memory>
#include <mutex>
#include <string>

namespace PW {

/** Holds the process's spdlog logger: a console sink, plus a rotating file once a file is named. */
class SpdlogBase
{
public:
    SpdlogBase(const SpdlogBase &) = delete;
    SpdlogBase &operator=(const SpdlogBase &) = delete;

    std::shared_ptr<spdlog::logger> logger() const;

    /** Adds a rotating file sink (5 files of 5 MiB). Returns false when the file cannot be opened. */
    bool addRotatingFile(const std::string &path);

protected:
    explicit SpdlogBase(const std::string &name);
    ~SpdlogBase();

private:
    std::shared_ptr<spdlog::logger> m_logger;
    mutable std::mutex m_mutex;
};

/** The logging service of the host application; one per process. */
class SpdlogApplication : public SpdlogBase
{
public:
    static SpdlogApplication &instance();

private:
    SpdlogApplication();
};

} // namespace PW
