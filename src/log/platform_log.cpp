#include "log/platform_log.h"

#ifdef __ANDROID__
#include <android/log.h>

void PlatformLogWrite(bool is_error, const char* message) {
    __android_log_print(is_error ? ANDROID_LOG_ERROR : ANDROID_LOG_DEBUG, "TouchD", "%s", message);
}

#else
#include <pthread.h>
#include <syslog.h>

namespace {
pthread_once_t g_syslog_once = PTHREAD_ONCE_INIT;
void OpenSyslog() { openlog("TouchD", LOG_PID, LOG_DAEMON); }
}  // namespace

void PlatformLogWrite(bool is_error, const char* message) {
    pthread_once(&g_syslog_once, OpenSyslog);
    syslog(is_error ? LOG_ERR : LOG_DEBUG, "%s", message);
}
#endif
