// Loaded before all others, shows on standard error what its process sends to syslog: a line
// "syslog" with the priority. The messages themselves go nowhere.
#include <cstdio>

extern "C" void syslog(int priority, const char* /*format*/, ...)
{
    fprintf(stderr, "syslog %d\n", priority);
}

extern "C" void __syslog_chk(int priority, int /*flag*/, const char* /*format*/, ...)
{
    fprintf(stderr, "syslog %d\n", priority);
}
