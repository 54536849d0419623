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

AccessLog::AccessLog(std::string file) : file_(std::move(file))
{
    if (file_.empty())
        return;
    descriptor_ = openLog(file_);
    sink_.emplace(descriptor_.get());
}

AccessLog::~AccessLog()
{
    flush();
}

void AccessLog::write(const AccessEntry& entry)
{
    // Made apart, so that nothing of it is left where memory ends on the way.
    std::string& out = line_;
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
    out += "}\n";

    collected_ += out;
    ++count_;
    if (collected_.size() >= mostCollected)
        flush();
}

void AccessLog::flush() noexcept
{
    if (count_ > 0)
        withoutFailure("the access log", [this] { writeCollected(); });
}

void AccessLog::writeCollected()
{
    LineSink& sink = sink_ ? *sink_ : errors_;
    if (untold_ > 0) {
        line_ = "{\"time\":";
        appendTime(line_);
        appendMember(line_, "dropped", untold_);
        line_ += "}\n";
        untold_ = sink.write(line_) == 1 ? 0 : untold_;
    }
    const size_t lost = count_ - (untold_ == 0 ? sink.write(collected_) : 0);
    collected_.clear();
    count_ = 0;
    dropped_ += lost;
    untold_ += lost;
}

void AccessLog::reopen()
{
    if (file_.empty())
        return;
    flush();
    try {
        Descriptor descriptor = openLog(file_);
        sink_.emplace(descriptor.get());
        descriptor_ = std::move(descriptor);
    } catch (const UsageError& e) {
        tell(std::string("the access log stays where it is: ") + e.what());
    }
}

void AccessLog::tell(const std::string& text)
{
    errors_.write("corvane-host: " + text + "\n");
}

// The time of day in UTC, with milliseconds, as a JSON string.
void AccessLog::appendTime(std::string& out)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec / 60 != minute_) {
        tm parts = {};
        gmtime_r(&now.tv_sec, &parts);
        std::array<char, 40> text;
        minuteText_.assign(text.data(),
                           strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:", &parts));
        minute_ = now.tv_sec / 60;
    }
    out.append("\"").append(minuteText_);
    const auto ofMinute = static_cast<uint64_t>(now.tv_sec % 60 * 1000 + now.tv_nsec / 1000000);
    out.append(ofMinute < 10000 ? "0" : "");
    appendThousandths(out, ofMinute);
    out.append("Z\"");
}
