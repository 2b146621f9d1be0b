// Feeds arbitrary bytes, as an SCL file, through the model reader, the type
// expansion, the instance values, the classification and every attribute
// row, as `qvtool load --check` does. The store is not touched.
#include <libxml/xmlerror.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "internal/qvloader.h"

namespace {

std::string g_inputPath;

void removeInput() { unlink(g_inputPath.c_str()); }

void ignoreXmlError(void*, const char*, ...) {}

bool writeInput(const uint8_t* data, size_t size) {
    FILE* file = std::fopen(g_inputPath.c_str(), "wb");
    if (file == nullptr) return false;
    const bool written = std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* dir = std::getenv("TMPDIR");
    std::string path = std::string(dir != nullptr ? dir : "/tmp") + "/qv-fuzz-scl-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) {
        std::perror("mkstemp");
        std::abort();
    }
    close(fd);
    g_inputPath = path;
    std::atexit(removeInput);
    // Parser diagnostics of every malformed input would drown the fuzzer's output.
    xmlSetGenericErrorFunc(nullptr, ignoreXmlError);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (writeInput(data, size)) qvaddied::loadFile(g_inputPath.c_str(), nullptr, false, nullptr);
    return 0;
}
