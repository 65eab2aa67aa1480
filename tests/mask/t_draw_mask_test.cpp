// The mask painter's model: the history ring, the replay of queued commands, the trial of a
// refinement, deep copies and the attached image.
#include "kestrix1/mask/t_draw_mask.h"

#include <gtest/gtest.h>
#include <omp.h>

#include "kestrix1/image/tp_image.h"

namespace {

using cv::Mat;

struct Open : TDrawMask {
    using TDrawMask::addHist, TDrawMask::histStatus, TDrawMask::m_committed, TDrawMask::m_source;
    using TDrawMask::redoMask, TDrawMask::undoMask;
};

// A small working image: Y a ramp, neutral colour.
TPImage image(int w, int h) {
    TPImage im;
    im.create(w, h, false);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            im.m_Y.at<std::uint16_t>(y, x) = std::uint16_t((x * 977 + y * 331) % 65536);
    im.m_Dr.setTo(32768);
    im.m_Db.setTo(32768);
    return im;
}

int valueOf(Mat const &m) {
    return m.at<std::uint8_t>(0, 0);
}

TEST(TDrawMask, HistoryKeepsEightStatesAndASnapshotDropsTheRedo) {
    // Without an image, the first state recorded leaves the start at -1: no undo yet.
    Open bare;
    bare.m_committed = Mat(2, 3, CV_8UC1, cv::Scalar(1));
    bare.addHist(bare.m_committed);
    EXPECT_EQ(bare.histStatus(), 0);

    TPImage im = image(6, 4);
    Open o;
    o.setInImage(&im, false);  // records the open mask as state 0
    EXPECT_EQ(o.histStatus(), 0);
    for (int k = 1; k <= 9; ++k) {
        o.m_committed.setTo(k);
        o.snapshot();
        EXPECT_EQ(o.histStatus(), 1) << k;  // an undo, no redo
    }
    int undos = 0;
    for (; undos < 10; ++undos) {
        o.undo();
        if (!o.bdirty()) break;
    }
    EXPECT_EQ(undos, 7);  // states 2..9 are left: undo stops at the second
    EXPECT_EQ(valueOf(o.committedMask()), 2);
    EXPECT_EQ(o.histStatus(), 2);
    o.redo();
    EXPECT_TRUE(o.bdirty() && valueOf(o.committedMask()) == 3 && o.histStatus() == 3);
    o.m_committed.setTo(42);
    o.snapshot();  // after an undo: the redo states go
    EXPECT_EQ(o.histStatus(), 1);
    o.redo();
    EXPECT_FALSE(o.bdirty());
    o.undo();
    EXPECT_EQ(valueOf(o.committedMask()), 3);
    Mat plane(4, 6, CV_8UC1, cv::Scalar(0));  // the same steps on a plane of the host's
    EXPECT_TRUE(o.redoMask(plane) && valueOf(plane) == 42 && !o.redoMask(plane));
    EXPECT_TRUE(o.undoMask(plane) && valueOf(plane) == 3);
}

TEST(TDrawMask, ProcReplaysOnlyWhatIsNewAndUsesTheBlendValueToFill) {
    TPImage im = image(6, 4);
    TDrawMask m;
    m.setInImage(&im, false);
    m.setMaskBlendValue(55);
    m.cmdSetValue(200);  // the blend value decides: 255 - 55
    EXPECT_TRUE(m.bNeedUpdate());
    m.proc();
    EXPECT_EQ(valueOf(m.committedMask()), 200);
    m.cmdInvert();
    m.proc();
    EXPECT_TRUE(valueOf(m.committedMask()) == 55 && valueOf(m.renderedMask()) == 55);
    m.setDirty(false);
    m.proc();  // nothing new
    EXPECT_FALSE(m.bNeedUpdate() || m.bdirty());
    EXPECT_EQ(valueOf(m.committedMask()), 55);

    // Deep copies: the copy keeps its mask and commands when the original moves on.
    TDrawMask copy(m);
    m.cmdInvert();
    m.proc();
    EXPECT_EQ(valueOf(copy.committedMask()), 55);
    copy.copyMaskFrom(&m);
    EXPECT_TRUE(copy.bdirty() && valueOf(copy.committedMask()) == 200);

    // Reset: the commands go, and the next proc starts from a fully open mask.
    m.reset();
    EXPECT_FALSE(m.bNeedUpdate());
    m.cmdDrawEnd();
    m.proc();
    EXPECT_EQ(valueOf(m.committedMask()), 255);
}

TEST(TDrawMask, RefinementIsKeptOrDroppedAndMasksFollowANewImage) {
    TPImage im = image(64, 48);
    Open m;
    m.setInImage(&im, false);
    m.cmdDrawEnd();
    m.proc();                                // started: later commands work on the mask as it is
    m.m_committed.colRange(0, 32).setTo(0);  // a hard edge to soften
    Mat const before = m.m_committed.clone();
    m.cmdPostFilter(6, 0.0f, 0, 0);
    m.proc();
    EXPECT_GT(cv::norm(m.committedMask(), before, cv::NORM_INF), 0);  // refined
    EXPECT_EQ(cv::norm(m.sourceMask(), before, cv::NORM_INF), 0);     // the unrefined aside
    Mat const refined = m.committedMask().clone();
    m.applyButtonClicked(false);
    m.proc();  // kept
    EXPECT_EQ(cv::norm(m.committedMask(), refined, cv::NORM_INF), 0);

    m.cmdPostFilter(6, 0.0f, 0, 0);
    m.applyButtonClicked(true);
    m.proc();  // tried and dropped: the refined mask it started from is back
    EXPECT_EQ(cv::norm(m.committedMask(), refined, cv::NORM_INF), 0);

    // A new image twice the size: the mask is scaled to it, or opened afresh.
    TPImage big = image(128, 96);
    m.setInImage(&big, true);
    EXPECT_EQ(m.committedMask().size(), cv::Size(128, 96));
    EXPECT_EQ(m.committedMask().at<std::uint8_t>(50, 100), refined.at<std::uint8_t>(25, 50));
    m.setFullSize(256, 192);
    Mat const roi = m.getMaskRoi(cv::Rect(0, 0, 256, 192), 2);
    EXPECT_EQ(roi.size(), cv::Size(128, 96));
    m.setInImage(&big, false);
    EXPECT_EQ(cv::countNonZero(m.committedMask() != 255), 0);
}

// Every kind of command replayed by proc: the same mask at 1, 2 and 4 threads.
TEST(TDrawMask, AFullReplayIsTheSameAtAnyThreadCount) {
    TPImage im = image(700, 420), other = image(350, 210);
    Mat first;
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        TDrawMask from, m;
        from.setInImage(&other, false);
        from.cmdInvert();
        from.proc();
        m.setInImage(&im, false);
        m.setMaskBlendValue(200);
        m.cmdSetColorPicker({100, 100});
        m.cmdDrawStart();
        for (int i = 0; i < 6; ++i)
            m.cmdDrawADot({60 * i, 40 * i}, 255, 90, 20, 0.7f, i % 2 == 0, i == 4);
        m.cmdDrawEnd();
        m.cmdDrawGradientMask({100, 300}, {600, 80}, 1);
        m.cmdDrawGradientMask({100, 300}, {650, 80}, 1);  // dragged: replaces the last one
        m.cmdDrawSuperMask({350, 200}, 0.85f, 0, 0, 0.5f, false);
        m.cmdPostFilter(8, 0.5f, 0.1f, 0.2f);
        m.applyButtonClicked(false);
        m.proc();
        if (first.empty()) first = m.renderedMask().clone();
        EXPECT_EQ(cv::norm(m.renderedMask(), first, cv::NORM_INF), 0) << threads;
        m.cmdCopyMaskFrom(&from);  // a smaller mask is scaled to this one
        m.proc();
        EXPECT_EQ(cv::countNonZero(m.committedMask()), 0);
    }
    omp_set_num_threads(omp_get_num_procs());
    EXPECT_GT(cv::countNonZero(first != 255), 10000);  // something was painted
}

}  // namespace
