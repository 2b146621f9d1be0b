// The row key of a DA reference: the hash that the loader writes into the
// store and that every lookup by reference computes again. It sits below
// the units so that each of them can use it without another's header.
#ifndef QV_INTERNAL_QVROWKEY_H
#define QV_INTERNAL_QVROWKEY_H

namespace qvkey {

// RSHash over the first len bytes of str.
inline unsigned int rsHash(const char* str, unsigned int len) {
    unsigned int a = 63689;
    const unsigned int b = 378551;
    unsigned int hash = 0;
    for (unsigned int i = 0; i < len; ++i) {
        // Bytes count as signed chars: 0xE9 adds 0xFFFFFFE9, not 0xE9.
        const int c = static_cast<signed char>(str[i]);
        hash = hash * a + static_cast<unsigned int>(c);
        a *= b;
    }
    return hash;
}

}  // namespace qvkey

#endif  // QV_INTERNAL_QVROWKEY_H
