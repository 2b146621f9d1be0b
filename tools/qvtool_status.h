// qvtool: what the health check shares with init.
#ifndef QVTOOL_STATUS_H
#define QVTOOL_STATUS_H

#include <string>
#include <vector>

namespace qvtool {

// The directory of the schema files realtime.sql and conf.sql ("" when
// neither the installed nor the source tree's are there).
std::string schemaDir();

// The other processes that hold one of the files of a store open (the
// store, its -wal, -shm or -journal), as "PID (name)". Processes whose
// descriptors this user may not read are not seen.
std::vector<std::string> storeOpeners(const std::string& path);

}  // namespace qvtool

#endif  // QVTOOL_STATUS_H
