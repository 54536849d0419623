// Who takes the plug-in's messages, which go to syslog.
#ifndef CORVANE_HOST_SYSLOG_TARGET_H
#define CORVANE_HOST_SYSLOG_TARGET_H

#include <string>

struct SyslogTarget {
    std::string fault;   // why nobody takes them; "" if somebody does
    std::string remedy;  // what to do about it
};

// Looks whether somebody listens at the socket.
SyslogTarget lookAtSyslog(const std::string& socket = "/dev/log");

#endif
