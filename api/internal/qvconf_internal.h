// Internal operations of the configuration store unit: not exported from the
// shared library and not installed; the messaging unit and the tests use them.
#ifndef QV_INTERNAL_QVCONF_INTERNAL_H
#define QV_INTERNAL_QVCONF_INTERNAL_H

struct ProcessMsgAssociation;

// The routes of a sender, at most `capacity` of them, so that routes added
// since the count cannot overrun the caller's table.
int listRoutesOf(const char* sendProcess, struct ProcessMsgAssociation* routes, int capacity,
                 int* pCount);

#endif  // QV_INTERNAL_QVCONF_INTERNAL_H
