/*
 * qvaddied: the model loader. Reads an SCL (ICD or CID) file and writes its
 * device model and initial value rows into the real-time store.
 */
#ifndef QVADDIED_H
#define QVADDIED_H

#include "qvexport.h"

#ifdef __cplusplus
extern "C" {
#endif

QV_API int zq_addIEDRealDB(char* cid_file);

#ifdef __cplusplus
}
#endif

#endif /* QVADDIED_H */
