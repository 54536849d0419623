#include "access_log.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "common/failure.h"
#include "host/output.h"
#include "json_text.h"

namespace {

// A pipe is not waited for, neither now nor when it is full.
Descriptor openLog(const std::string& file)
{
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    Descriptor descriptor(open(file.c_str(), flags, 0600));
    if (!descriptor)
        throw UsageError("cannot write " + file + ": " +
                         (errno == ENXIO ? "it is a socket, or a pipe that nobody reads"
                                         : std::generic_category().message(errno)));
    return descriptor;
}

// Lines are not collected beyond so many bytes.
constexpr size_t mostCollected = size_t{64} << 10;

void appendMember(std::string& out, std::string_view name, std::string_view text)
{
    out.append(",\"").append(name).append("\":");
    appendJsonText(out, text);
}

void appendMember(std::string& out, std::string_view name, uint64_t number)
{
    out.append(",\"").append(name).append("\":").append(std::to_string(number));
}

// Of three digits.
void appendThousandths(std::string& out, uint64_t number)
{
    const std::string digits = std::to_string(1000 + number % 1000);
    out.append(std::to_string(number / 1000)).append(".").append(digits, 1);
}

}  // namespace

AccessLog::AccessLog(std::string file) : m_file(std::move(file))
{
    if (m_file.empty())
        return;
    m_descriptor = openLog(m_file);
    m_sink.emplace(m_descriptor.get());
}

AccessLog::~AccessLog()
{
    flush();
}

void AccessLog::write(const AccessEntry& entry)
{
    const std::lock_guard lock(m_mutex);
    // Made apart, so that nothing of it is left where memory ends on the way.
    std::string& out = m_line;
    out = "{\"time\":";
    appendTime(out);
    appendMember(out, "id", entry.id);
    appendMember(out, "address", entry.address);
    appendMember(out, "method", entry.method);
    appendMember(out, "route", entry.route);
    appendMember(out, "status", entry.status);
    appendMember(out, "received", entry.received);
    appendMember(out, "sent", entry.sent);
    out += ",\"milliseconds\":";
    appendThousandths(out, entry.microseconds);
    out += entry.isWhole ? ",\"whole\":true" : ",\"whole\":false";
    if (!entry.request.empty())
        appendMember(out, "request", entry.request);
    if (!entry.error.empty())
        appendMember(out, "error", entry.error);
    if (entry.requests > 0) {
        appendMember(out, "requests", entry.requests);
        appendMember(out, "failed", entry.failed);
    }
    out += "}\n";

    m_collected += out;
    ++m_count;
    if (m_collected.size() >= mostCollected)
        flushLocked();
}

void AccessLog::flush() noexcept
{
    const std::lock_guard lock(m_mutex);
    flushLocked();
}

void AccessLog::flushLocked() noexcept
{
    if (m_count > 0)
        withoutFailure("the access log", [this] { writeCollected(); });
}

void AccessLog::writeCollected()
{
    LineSink& sink = m_sink ? *m_sink : m_errors;
    if (m_untold > 0) {
        m_line = "{\"time\":";
        appendTime(m_line);
        appendMember(m_line, "dropped", m_untold);
        m_line += "}\n";
        m_untold = sink.write(m_line) == 1 ? 0 : m_untold;
    }
    const size_t lost = m_count - (m_untold == 0 ? sink.write(m_collected) : 0);
    m_collected.clear();
    m_count = 0;
    m_dropped += lost;
    m_untold += lost;
}

void AccessLog::reopen()
{
    if (m_file.empty())
        return;
    const std::lock_guard lock(m_mutex);
    flushLocked();
    try {
        Descriptor descriptor = openLog(m_file);
        m_sink.emplace(descriptor.get());
        m_descriptor = std::move(descriptor);
    } catch (const UsageError& e) {
        tellLocked(std::string("the access log stays where it is: ") + e.what());
    }
}

uint64_t AccessLog::dropped() const
{
    const std::lock_guard lock(m_mutex);
    return m_dropped;
}

void AccessLog::tell(const std::string& text)
{
    const std::lock_guard lock(m_mutex);
    tellLocked(text);
}

void AccessLog::tellLocked(const std::string& text)
{
    m_errors.write("corvane-host: " + text + "\n");
}

// The time of day in UTC, with milliseconds, as a JSON string.
void AccessLog::appendTime(std::string& out)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec / 60 != m_minute) {
        tm parts = {};
        gmtime_r(&now.tv_sec, &parts);
        std::array<char, 40> text;
        m_minuteText.assign(text.data(),
                            strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:", &parts));
        m_minute = now.tv_sec / 60;
    }
    out.append("\"").append(m_minuteText);
    const auto ofMinute = static_cast<uint64_t>(now.tv_sec % 60 * 1000 + now.tv_nsec / 1000000);
    out.append(ofMinute < 10000 ? "0" : "");
    appendThousandths(out, ofMinute);
    out.append("Z\"");
}
