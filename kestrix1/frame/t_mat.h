// TMat: a cv::Mat that knows where its content came from.
//
// Besides the pixels (shared by reference count, as in cv::Mat) a TMat carries its own
// stamp, the effect that holds it (TFx, known to the library only as a pointer) and the
// stamps it was computed from, so that an effect can tell whether it must recompute it.
#pragma once

#include <memory>

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"
#include "kestrix1/frame/t_uid.h"

class TFx;

class KESTRIX1_EXPORT TMat : public cv::Mat {
public:
    // An empty matrix with a fresh stamp.
    explicit TMat(TFx *parent = nullptr);

    // rows x cols of `type`, with a fresh stamp.
    TMat(TFx *parent, int rows, int cols, int type);

    // Shares the pixels of `m`; fresh stamp, no dependencies.
    TMat(TFx *parent, cv::Mat const &m);

    // Shares the pixels and copies parent and dependencies; the stamp is a fresh one.
    TMat(TMat const &other);

    ~TMat();

    // Shares the pixels of `m`; stamp, parent and dependencies stay.
    TMat &operator=(cv::Mat const &m);

    // Shares the pixels, takes over the other matrix's stamp object and parent, and copies
    // its dependencies. The two matrices then hold one stamp: updating it through either
    // shows in both.
    TMat &operator=(TMat const &other);

    // Deep copy of the pixels into `target`, which also takes this parent and these
    // dependencies; the target's stamp stays.
    void copyTMat(TMat &target) const;

    TFx *parent() const { return m_parent_p; }
    void setParent(TFx *parent) { m_parent_p = parent; }
    TUid &uid() { return *m_uid_p; }
    TUidDepends &depends() { return m_depends; }

    TUid *m_uid_p;
    TFx *m_parent_p;
    TUidDepends m_depends;

private:
    // Keeps m_uid_p alive while any matrix holds it: stamps are shared by assignment.
    std::shared_ptr<TUid> m_uidOwner;
};
