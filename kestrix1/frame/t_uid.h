// Identity stamps and the dependency lists built on them.
//
// A TUid is a stamp from one library-wide counter; an object takes a new stamp whenever its
// content changes. A TUidDepends watches the stamps of the sources a result was computed
// from: `dirty` tells whether any of them moved since the last `clean`. The counter never
// hands out 0, which therefore means "not seen yet".
#pragma once

#include <vector>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT TUid {
public:
    // Takes the next stamp from the counter and remembers its owner.
    explicit TUid(void *owner = nullptr);

    // Sets the stamp without touching the counter (for instance to a foreign stamp).
    void set(int id) { m_id = id; }

    int id() const { return m_id; }

    // Takes the next stamp from the counter.
    void update();

    int m_id;
    void *m_owner_p;
};

class KESTRIX1_EXPORT TUidDepends {
public:
    // Watches `uid`, recorded as seen at 0, so it is dirty until cleaned.
    void addDepedentUid(TUid const *uid);

    int size() const { return static_cast<int>(m_uids.size()); }

    TUid const &uid(int i) const { return *m_uids[i]; }

    // With null: whether any watched stamp moved since it was cleaned (false when empty).
    // Otherwise: whether the first entry for `uid` moved; false for a stamp not watched.
    bool dirty(TUid const *uid) const;

    // Records the current value of every watched stamp (null) or of the first entry for
    // `uid`.
    void clean(TUid const *uid);

    // Forgets the watched stamps. The recorded values stay, so after clear() the entries
    // of m_uids and m_seenIds no longer pair up by index; hosts rely on this behaviour.
    void clear() { m_uids.clear(); }

    std::vector<TUid const *> m_uids;  // not owned
    std::vector<int> m_seenIds;        // stamp value at the last clean, by index
};
