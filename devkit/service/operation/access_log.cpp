#include "access_log.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "host/output.h"

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

std::string lineOf(const nlohmann::ordered_json& entry)
{
    return entry.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace

AccessLog::AccessLog(std::string file) : file_(std::move(file))
{
    if (file_.empty())
        return;
    descriptor_ = openLog(file_);
    lines_.emplace(descriptor_.get());
}

void AccessLog::write(const nlohmann::ordered_json& entry)
{
    LineSink& lines = lines_ ? *lines_ : errors_;
    if (untold_ > 0 && lines.write(lineOf({{"time", timeText()}, {"dropped", untold_}})))
        untold_ = 0;
    if (untold_ == 0 && lines.write(lineOf(entry)))
        return;
    ++dropped_;
    ++untold_;
}

void AccessLog::reopen()
{
    if (file_.empty())
        return;
    try {
        Descriptor descriptor = openLog(file_);
        lines_.emplace(descriptor.get());
        descriptor_ = std::move(descriptor);
    } catch (const UsageError& e) {
        tell(std::string("the access log stays where it is: ") + e.what());
    }
}

void AccessLog::tell(const std::string& text)
{
    errors_.write("corvane-host: " + text + "\n");
}

std::string timeText()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    gmtime_r(&now.tv_sec, &parts);
    std::array<char, 40> text;
    const size_t size = strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text.data() + size, text.size() - size, ".%03ldZ", now.tv_nsec / 1000000);
    return text.data();
}
