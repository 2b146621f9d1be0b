// The change feed as the library's saves, the loader and the tool use it.
// Internal; not installed.
#ifndef QV_INTERNAL_QVFEED_HOOKS_H
#define QV_INTERNAL_QVFEED_HOOKS_H

namespace qvfeed {

// The changes of one save, made under the store lock: begun when made,
// published together once the save says it committed, forgotten otherwise.
// A save killed before it publishes leaves a mark that makes the next save
// publish a reset first.
class SaveGroup {
public:
    // Without the store lock there is no order to publish in: no group.
    explicit SaveGroup(bool lockHeld);
    ~SaveGroup();
    SaveGroup(const SaveGroup&) = delete;
    SaveGroup& operator=(const SaveGroup&) = delete;
    void committed() { committed_ = true; }

private:
    const bool active_;
    bool committed_ = false;
};

// One value row written by the save in progress (ignored outside a group).
// An untimed save passes timestamp 0: the change carries the time of now.
void noteChange(unsigned int hashID, double value, int quality, double timestamp);

// A row written by the save in progress that the feed cannot describe:
// the save's changes carry a reset (ignored outside a group).
void noteLoss();

// Publishes one reset under the store lock: values changed beyond the feed
// (a model load, a store made anew).
void announceReset();

// The ring size of the feed files that this process creates from now on (0:
// the built-in capacity). For tests that need a small ring.
void setNewFeedCapacity(unsigned long long capacity);

}  // namespace qvfeed

#endif  // QV_INTERNAL_QVFEED_HOOKS_H
