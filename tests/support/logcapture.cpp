#include "support/logcapture.h"

#include <pwspdlog/spdlogapplication.h>

#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <mutex>

class LogCapture::Sink : public spdlog::sinks::base_sink<std::mutex>
{
public:
    std::vector<Line> copy()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return captured;
    }
    void reset()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        captured.clear();
    }

protected:
    void sink_it_(const spdlog::details::log_msg &msg) override
    {
        captured.push_back({msg.level, std::string(msg.payload.data(), msg.payload.size())});
    }
    void flush_() override { }

private:
    std::vector<Line> captured;
};

LogCapture::LogCapture()
    : m_sink(std::make_shared<Sink>())
{
    PW::SpdlogApplication::instance().logger()->sinks().push_back(m_sink);
}

LogCapture::~LogCapture()
{
    auto &sinks = PW::SpdlogApplication::instance().logger()->sinks();
    sinks.erase(std::remove(sinks.begin(), sinks.end(), m_sink), sinks.end());
}

std::vector<LogCapture::Line> LogCapture::lines() const
{
    return m_sink->copy();
}

std::vector<LogCapture::Line> LogCapture::linesStartingWith(const std::string &prefix) const
{
    std::vector<Line> result;
    for (auto &line : m_sink->copy()) {
        if (line.text.compare(0, prefix.size(), prefix) == 0)
            result.push_back(std::move(line));
    }
    return result;
}

std::vector<std::string> LogCapture::messages() const
{
    std::vector<std::string> texts;
    for (const Line &line : m_sink->copy())
        texts.push_back(line.text.substr(0, line.text.find(" \n //")));
    return texts;
}

int LogCapture::count(const std::string &message) const
{
    const std::vector<std::string> texts = messages();
    return int(std::count(texts.begin(), texts.end(), message));
}

void LogCapture::clear()
{
    m_sink->reset();
}
