// The settings-file mutexes and the locked open of the settings file and its temporary copy.
#include <stdio.h>

#include "config/global_settings.h"
#include "core/data_file.h"

pthread_mutex_t SettingsFileMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t TempFileMutex = PTHREAD_MUTEX_INITIALIZER;

FILE* LockAndOpenFile(const char* path, const char* mode, pthread_mutex_t* mutex) {
    pthread_mutex_lock(mutex);
    FILE* stream = FopenDataFile(path, mode);
    if (!stream) pthread_mutex_unlock(mutex);
    return stream;
}

int CloseAndUnlockFile(FILE* stream, pthread_mutex_t* mutex) {
    if (stream) {
        fclose(stream);
        pthread_mutex_unlock(mutex);
    }
    return 0;
}
