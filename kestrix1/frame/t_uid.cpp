#include "kestrix1/frame/t_uid.h"

#include <cstddef>

#include "kestrix1/frame/uid_counter.h"

namespace {

// Unprotected on purpose: stamps are taken on the calling thread, and two host threads
// racing here cost at most a repeated stamp.
int g_uidCounter = 1;

}  // namespace

int kxNextUid() {
    int const id = g_uidCounter;
    // Wrap through unsigned arithmetic: the int counter runs on from INT_MAX to INT_MIN.
    g_uidCounter = static_cast<int>(static_cast<unsigned>(g_uidCounter) + 1u);
    if (g_uidCounter == 0) g_uidCounter = 1;
    return id;
}

int kxPeekUid() {
    return g_uidCounter;
}

void kxSetUidCounter(int value) {
    g_uidCounter = value;
}

TUid::TUid(void *owner) : m_id(kxNextUid()), m_owner_p(owner) {}

void TUid::update() {
    m_id = kxNextUid();
}

void TUidDepends::addDepedentUid(TUid const *uid) {
    m_uids.push_back(uid);
    m_seenIds.push_back(0);
}

bool TUidDepends::dirty(TUid const *uid) const {
    for (std::size_t i = 0; i < m_uids.size(); ++i) {
        if (uid == nullptr) {
            if (m_seenIds[i] != m_uids[i]->m_id) return true;
        } else if (m_uids[i] == uid) {
            return m_seenIds[i] != uid->m_id;
        }
    }
    return false;
}

void TUidDepends::clean(TUid const *uid) {
    for (std::size_t i = 0; i < m_uids.size(); ++i) {
        if (uid == nullptr) {
            m_seenIds[i] = m_uids[i]->m_id;
        } else if (m_uids[i] == uid) {
            m_seenIds[i] = uid->m_id;
            return;
        }
    }
}
