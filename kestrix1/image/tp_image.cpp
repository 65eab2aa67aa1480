// TPImage: life cycle, geometry and identity of the working image.
#include "kestrix1/image/tp_image.h"

#include "kestrix1/image/scaling.h"

namespace {

// Plain count of living images; unprotected like the stamp counter.
int g_liveImages = 0;

// Reallocates only when the size or type differs, so shared planes stay shared.
void ensure(cv::Mat &m, int width, int height, int type) {
    m.create(height, width, type);
}

}  // namespace

TPImage::TPImage(int width, int height)
    : m_scale(1.0f), m_x(0), m_y(0), m_level(1), m_uid_p(new TUid(this)), m_uidIsForeign(false) {
    ++g_liveImages;
    create(width, height, false);
}

TPImage::TPImage(TPImage const &other)
    : m_Y(other.m_Y),
      m_fY(other.m_fY),
      m_scale(other.m_scale),
      m_Dr(other.m_Dr),
      m_Db(other.m_Db),
      m_halfMask(other.m_halfMask),
      m_x(other.m_x),
      m_y(other.m_y),
      m_level(other.m_level),
      m_uid_p(new TUid(this)),
      m_uidIsForeign(false) {
    ++g_liveImages;
    m_uid_p->set(other.m_uid_p->id());
}

TPImage &TPImage::operator=(TPImage const &other) {
    m_Y = other.m_Y;
    m_fY = other.m_fY;
    m_Dr = other.m_Dr;
    m_Db = other.m_Db;
    m_halfMask = other.m_halfMask;
    m_scale = other.m_scale;
    m_x = other.m_x;
    m_y = other.m_y;
    m_level = other.m_level;
    m_uid_p->set(other.m_uid_p->id());
    return *this;
}

TPImage::~TPImage() {
    if (!m_uidIsForeign) delete m_uid_p;
    --g_liveImages;
}

TPImage TPImage::clone() const {
    TPImage copy;
    copy.m_Y = m_Y.clone();
    copy.m_fY = m_fY.clone();
    copy.m_Dr = m_Dr.clone();
    copy.m_Db = m_Db.clone();
    copy.m_halfMask = m_halfMask.clone();
    copy.m_scale = m_scale;
    copy.m_x = m_x;
    copy.m_y = m_y;
    copy.m_level = m_level;
    copy.m_uid_p->set(m_uid_p->id());
    return copy;
}

void TPImage::create(int width, int height, bool) {
    if (width != m_Y.cols || height != m_Y.rows) {
        ensure(m_Y, width, height, CV_16UC1);
        m_fY = cv::Mat();
        ensure(m_Dr, half(width), half(height), CV_16UC1);
        ensure(m_Db, half(width), half(height), CV_16UC1);
        ensure(m_halfMask, half(width), half(height), CV_8UC1);
    }
    m_scale = 1.0f;
    m_level = 1;
    m_x = 0;
    m_y = 0;
}

void TPImage::release() {
    m_Y = cv::Mat();
    m_fY = cv::Mat();
    m_Dr = cv::Mat();
    m_Db = cv::Mat();
    m_halfMask = cv::Mat();
    m_level = 1;
}

void TPImage::setUid(TUid const *uid) {
    if (!m_uidIsForeign) delete m_uid_p;
    // The stamp is the host's; assignment writes the source's id into it, as it would into
    // an own stamp.
    m_uid_p = const_cast<TUid *>(uid);
    m_uidIsForeign = true;
}

cv::Mat TPImage::getfY() const {
    if (m_fY.data != nullptr && m_fY.total() != 0) {
        cv::Mat full = m_Y.clone();
        upSize2X(m_fY, full, 4);
        return full;
    }
    return m_Y;
}

int TPImage::liveCount() {
    return g_liveImages;
}
