#include "access_log.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "exchange.h"
#include "output.h"
#include "values.h"

namespace {

Descriptor openLog(const std::string& file)
{
    return Descriptor(open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
}

}  // namespace

AccessLog::AccessLog(std::string file) : file_(std::move(file))
{
    if (file_.empty())
        return;
    descriptor_ = openLog(file_);
    if (!descriptor_)
        throw UsageError("cannot write " + file_ + ": " + std::generic_category().message(errno));
}

void AccessLog::write(const nlohmann::ordered_json& entry)
{
    const std::string line = ::write(entry, -1) + "\n";
    // One call, so that lines stay whole. A full disk must not stop the service.
    [[maybe_unused]] const ssize_t count =
        ::write(descriptor_ ? descriptor_.get() : STDERR_FILENO, line.data(), line.size());
}

void AccessLog::reopen()
{
    if (file_.empty())
        return;
    Descriptor descriptor = openLog(file_);
    if (descriptor)
        descriptor_ = std::move(descriptor);
    else
        tell("cannot reopen " + file_ + ": " + std::generic_category().message(errno));
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
