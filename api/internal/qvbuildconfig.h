// The library's compiled-in configuration. The build passes every value as a
// definition (see the QV_* cache options); nothing is read at run time.
#ifndef QV_INTERNAL_QVBUILDCONFIG_H
#define QV_INTERNAL_QVBUILDCONFIG_H

#if !defined(QV_REALTIME_DB_PATH) || !defined(QV_CONF_DB_PATH) || !defined(QV_SEM_KEY) || \
    !defined(QV_QUEUE_KEY_OFFSET) || !defined(QV_IPC_MODE)
#error "the build must define QV_REALTIME_DB_PATH, QV_CONF_DB_PATH, QV_SEM_KEY, QV_QUEUE_KEY_OFFSET and QV_IPC_MODE"
#endif

#endif  // QV_INTERNAL_QVBUILDCONFIG_H
