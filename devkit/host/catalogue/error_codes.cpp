#include "error_codes.h"

#include "engine/engine_numbers.h"

namespace {

const std::vector<ErrorCode> numbers = {
#define ROW(name, code, text, cause, remedy) {code, #name, "plug-in", text, cause, remedy, 0},
    AVEN_PLUGIN_ERRORS(ROW)
#undef ROW
#define ROW(name, code, text, cause, remedy) {code, #name, "engine", text, cause, remedy, 0},
        AVEN_ENGINE_ERRORS(ROW)
#undef ROW
};

// Reasons of one code differ in what a client does next.
const std::vector<Reason> reasons = {
    {"bad_path", "no_folder",
     "the host was started without --ca-folder; files can only be uploaded"},
    {"bad_path", "outside_folder", "a file is named from the host's folder, without \"..\""},
    {"bad_path", "no_such_file", "there is no such file below the host's folder"},
    {"bad_path", "no_such_folder", "there is no such folder below the host's folder"},
    {"session_gone", "session_unknown", "there is no such session: it is not known here"},
    {"session_gone", "session_freed", "there is no such session: it was freed"},
    {"session_gone", "session_idle", "there is no such session: it was idle for too long"},
    {"session_gone", "session_worker_ended", "there is no such session: its worker process ended"},
    {"session_gone", "session_worker_forgot",
     "there is no such session: its worker does not know it"},
    {"busy", "queue_full", "too many requests wait for a worker"},
    {"busy", "no_worker", "no process was free for the request in time"},
    {"busy", "sessions_full", "there are as many sessions as the host takes"},
};

template <typename Row>
const Row* findByName(const std::vector<Row>& rows, const std::string& name)
{
    for (const Row& row : rows)
        if (row.name == name)
            return &row;
    return nullptr;
}

}  // namespace

const std::vector<ErrorCode>& errorCodes()
{
    return numbers;
}

const ErrorCode* findErrorCode(int code)
{
    for (const ErrorCode& row : numbers)
        if (row.code == code)
            return &row;
    return nullptr;
}

const ErrorCode* findHostCode(const std::string& name)
{
    return findByName(hostCodes(), name);
}

std::string codeText(const ErrorCode& code)
{
    return code.code == 0 ? code.name : std::to_string(code.code);
}

const std::vector<Reason>& hostReasons()
{
    return reasons;
}

const Reason* findReason(const std::string& name)
{
    return findByName(reasons, name);
}
