/* Marks the operations that the shared library exports. */
#ifndef QVEXPORT_H
#define QVEXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define QV_API __attribute__((visibility("default")))
#else
#define QV_API
#endif

#endif /* QVEXPORT_H */
