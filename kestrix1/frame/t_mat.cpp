#include "kestrix1/frame/t_mat.h"

TMat::TMat(TFx *parent)
    : cv::Mat(), m_uid_p(nullptr), m_parent_p(parent), m_uidOwner(std::make_shared<TUid>(this)) {
    m_uid_p = m_uidOwner.get();
}

TMat::TMat(TFx *parent, int rows, int cols, int type)
    : cv::Mat(rows, cols, type),
      m_uid_p(nullptr),
      m_parent_p(parent),
      m_uidOwner(std::make_shared<TUid>(this)) {
    m_uid_p = m_uidOwner.get();
}

TMat::TMat(TFx *parent, cv::Mat const &m)
    : cv::Mat(m), m_uid_p(nullptr), m_parent_p(parent), m_uidOwner(std::make_shared<TUid>(this)) {
    m_uid_p = m_uidOwner.get();
}

TMat::TMat(TMat const &other)
    : cv::Mat(other),
      m_uid_p(nullptr),
      m_parent_p(other.m_parent_p),
      m_depends(other.m_depends),
      m_uidOwner(std::make_shared<TUid>(this)) {
    m_uid_p = m_uidOwner.get();
}

TMat::~TMat() = default;

TMat &TMat::operator=(cv::Mat const &m) {
    cv::Mat::operator=(m);
    return *this;
}

TMat &TMat::operator=(TMat const &other) {
    if (this == &other) return *this;
    cv::Mat::operator=(other);
    m_uidOwner = other.m_uidOwner;
    m_uid_p = other.m_uid_p;
    m_parent_p = other.m_parent_p;
    m_depends = other.m_depends;
    return *this;
}

void TMat::copyTMat(TMat &target) const {
    copyTo(target);
    target.m_parent_p = m_parent_p;
    target.m_depends = m_depends;
}
