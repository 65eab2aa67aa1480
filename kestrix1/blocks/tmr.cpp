#include "kestrix1/blocks/tmr.h"

#include <cstdint>

#include "kestrix1/filters/bilateral_filter.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/kernels/parallel.h"

namespace {

char const kBadProc[] = "ERROR - TMR::proc - a and b must be three CV_16UC1 planes of one size";
char const kBadProc1[] = "ERROR - TMR::proc1 - a and b must be three CV_16UC1 planes of one size";
char const kBadProc2[] = "ERROR - TMR::proc2 - a and b must be three CV_16UC1 planes of one size";
char const kBadProc3[] = "ERROR - TMR::proc3 - a and b must be three CV_16UC1 planes of one size";
char const kBadProc4[] =
    "ERROR - TMR::proc4 - a, b and c must be three CV_16UC1 planes of one size";
char const kBadProc5[] = "ERROR - TMR::proc5 - a and b must be three CV_16UC1 planes of one size";
char const kBadProc6[] = "ERROR - TMR::proc6 - a and b must be three CV_16UC1 planes of one size";
char const kBadProcC1[] = "ERROR - TMR::procC1 - a and b must be CV_16UC1 of one size";
char const kBadProcC2[] = "ERROR - TMR::procC2 - a and b must be CV_16UC1 of one size";

using Planes = std::vector<cv::Mat>;

// A 16-bit value v enters float as v / 65536 (65535 stays below 1) and leaves as f 65536.
constexpr float kIn = 1.52587890625e-05f;
constexpr float kOut = 65536.0f;
constexpr int kBlock = 1024;

// One gain per plane of the two images, a's first; a block list longer than six planes
// starts over. A gain scales a plane before a filter sees it (so it weighs that plane's
// edges) and is divided out again on the way back.
constexpr float kGains[6] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
float gainOf(int slot) {
    return kGains[slot % 6];
}

// Empty input returns at once: no planes, or a first plane without pixels.
bool emptyInput(Planes const &a) {
    return a.empty() || a[0].empty();
}

bool threePlanes(Planes const &v, cv::Size size) {
    if (v.size() < 3) return false;
    for (int i = 0; i < 3; ++i)
        if (v[i].type() != CV_16UC1 || v[i].size() != size) return false;
    return true;
}

std::int64_t workOf(cv::Mat const &m) {
    return std::int64_t(m.total()) * m.channels();
}

// One 16-bit plane to float, v / 65536 times gain.
void toFloat(cv::Mat const &src, float gain, cv::Mat &dst) {
    dst.create(src.size(), CV_32F);
    float const s = kIn * gain;
    parallelRows(src.rows, workOf(src), [&](int y) {
        std::uint16_t const *in = src.ptr<std::uint16_t>(y);
        float *out = dst.ptr<float>(y);
        for (int x = 0; x < src.cols; ++x)
            out[x] = float(in[x]) * s;
    });
}

// Three 16-bit planes interleaved into one CV_32FC3 image, each scaled as toFloat does
// with the gain of its slot.
void mergeToFloat(cv::Mat const *planes, int firstSlot, cv::Mat &dst) {
    cv::Mat const &p0 = planes[0], &p1 = planes[1], &p2 = planes[2];
    dst.create(p0.size(), CV_32FC3);
    float const s0 = kIn * gainOf(firstSlot), s1 = kIn * gainOf(firstSlot + 1),
                s2 = kIn * gainOf(firstSlot + 2);
    parallelRows(p0.rows, workOf(p0) * 3, [&](int y) {
        std::uint16_t const *i0 = p0.ptr<std::uint16_t>(y), *i1 = p1.ptr<std::uint16_t>(y),
                            *i2 = p2.ptr<std::uint16_t>(y);
        float *out = dst.ptr<float>(y);
        for (int x = 0; x < p0.cols; ++x) {
            out[3 * x] = float(i0[x]) * s0;
            out[3 * x + 1] = float(i1[x]) * s1;
            out[3 * x + 2] = float(i2[x]) * s2;
        }
    });
}

// dst = sat16(rint((t1 + (t2 - t3)) 65536 / gain)) on CV_32F planes, the sums in float: the
// recombination of a base and a detail, and with t2, t3 left out the plain way back.
void combine(cv::Mat const &t1, cv::Mat const *t2, cv::Mat const *t3, float gain, cv::Mat &dst) {
    dst.create(t1.size(), CV_16U);
    float const back = kOut / gain;
    parallelRows(t1.rows, workOf(t1) * 3, [&](int y) {
        float const *r1 = t1.ptr<float>(y);
        float const *r2 = t2 ? t2->ptr<float>(y) : nullptr;
        float const *r3 = t3 ? t3->ptr<float>(y) : nullptr;
        std::uint16_t *out = dst.ptr<std::uint16_t>(y);
        for (int x = 0; x < t1.cols; ++x)
            out[x] = cv::saturate_cast<std::uint16_t>(
                (r1[x] + (r2 ? r2[x] - (r3 ? r3[x] : 0.0f) : 0.0f)) * back);
    });
}

// The same for the three channels of interleaved CV_32FC3 images into the three 16-bit
// planes dst[0..2] of their size (the first three slots of a block), in one pass.
void combine3(cv::Mat const &t1, cv::Mat const *t2, cv::Mat const *t3, cv::Mat *dst) {
    float const back[3] = {kOut / gainOf(0), kOut / gainOf(1), kOut / gainOf(2)};
    parallelRows(t1.rows, workOf(t1) * 2, [&](int y) {
        float const *r1 = t1.ptr<float>(y);
        float const *r2 = t2 ? t2->ptr<float>(y) : nullptr;
        float const *r3 = t3 ? t3->ptr<float>(y) : nullptr;
        for (int c = 0; c < 3; ++c) {
            std::uint16_t *out = dst[c].ptr<std::uint16_t>(y);
            float const k = back[c];
            if (r3)
                for (int x = 0; x < t1.cols; ++x)
                    out[x] = cv::saturate_cast<std::uint16_t>(
                        (r1[3 * x + c] + (r2[3 * x + c] - r3[3 * x + c])) * k);
            else if (r2)
                for (int x = 0; x < t1.cols; ++x)
                    out[x] = cv::saturate_cast<std::uint16_t>((r1[3 * x + c] + r2[3 * x + c]) * k);
            else
                for (int x = 0; x < t1.cols; ++x)
                    out[x] = cv::saturate_cast<std::uint16_t>(r1[3 * x + c] * k);
        }
    });
}

// a = sat16(rint(q - r + p)) per pixel in single precision, 16-bit planes.
void addDetail(cv::Mat &a, cv::Mat const &p, cv::Mat const &q, cv::Mat const &r) {
    parallelRows(a.rows, workOf(a) * 3, [&](int y) {
        std::uint16_t const *pp = p.ptr<std::uint16_t>(y), *qq = q.ptr<std::uint16_t>(y),
                            *rr = r.ptr<std::uint16_t>(y);
        std::uint16_t *out = a.ptr<std::uint16_t>(y);
        for (int x = 0; x < a.cols; ++x)
            out[x] = cv::saturate_cast<std::uint16_t>(float(qq[x]) - float(rr[x]) + float(pp[x]));
    });
}

bool shares(cv::Mat const &x, cv::Mat const &y) {
    return !x.empty() && !y.empty() && x.datastart < y.dataend && y.datastart < x.dataend;
}

// Makes out three 16-bit planes of `size` and gives the planes to write: out's own, or a
// fresh plane where out shares pixels with an input (a block may read its surroundings
// after an earlier block wrote there). finishOut copies those back.
Planes targetsFor(Planes &out, cv::Size size, std::vector<Planes const *> const &inputs) {
    if (out.size() < 3) out.resize(3);
    Planes targets(3);
    for (int i = 0; i < 3; ++i) {
        out[i].create(size, CV_16U);
        bool shared = false;
        for (Planes const *in : inputs)
            for (cv::Mat const &m : *in)
                shared = shared || shares(out[i], m);
        targets[i] = shared ? cv::Mat(size, CV_16U) : out[i];
    }
    return targets;
}

void finishOut(Planes const &targets, Planes &out) {
    for (int i = 0; i < 3; ++i)
        if (targets[i].data != out[i].data) targets[i].copyTo(out[i]);
}

// The block list: the given planes in order. Results go to the first three slots'
// outputs; every other slot is written to one shared scratch plane whose content is
// never read.
void blockLists(std::vector<Planes const *> const &groups, Planes const &results, cv::Mat &scratch,
                Planes &list, Planes &outputs) {
    list.clear();
    outputs.clear();
    for (Planes const *g : groups)
        for (int i = 0; i < 3; ++i)
            list.push_back((*g)[i]);
    if (list.size() > 3) scratch = cv::Mat::zeros(list[0].size(), CV_16U);
    for (std::size_t i = 0; i < list.size(); ++i)
        outputs.push_back(i < 3 ? results[i] : scratch);
}

// Three 16-bit planes to three float planes, each by the gain of its slot.
void floatPlanes(cv::Mat const *planes, int firstSlot, Planes &dst) {
    dst.resize(3);
    for (int i = 0; i < 3; ++i)
        toFloat(planes[i], gainOf(firstSlot + i), dst[i]);
}

// The bases of x and y by AFilter, each its own guide. The second run replays the random
// generator's state of the first, so both images are split along the same directions and
// their bases differ only where the images do (two runs on one image would otherwise differ
// by thousands of codes on a strongly coloured picture).
void twoBases(AFilter &f, float sR, float sS, Planes const &x, Planes &X, Planes const &y,
              Planes &Y) {
    cv::RNG &rng = cv::theRNG();
    std::uint64_t const state = rng.state;
    f.setup(sR, sS, 0, 1, x);
    f.proc(x, X);
    rng.state = state;
    f.setup(sR, sS, 0, 1, y);
    f.proc(y, Y);
}

}  // namespace

bool TMR::setup(float sigmaS_, float sigmaR_) {
    sigmaS = sigmaS_;
    sigmaR = sigmaR_;
    return true;
}

template <class Work>
void TMR::eachBlock(std::vector<Planes const *> const &groups, Planes const &results, int overlap,
                    Work &&work) {
    blockLists(groups, results, scratch_, list_, blocksOut_);
    bp_.initialize(list_, blocksOut_, kBlock, kBlock, true, overlap, 0,
                   BlockProcessor::EDGE_TAPER_LINEAR);
    int rect[4];
    while (bp_.getBlockImage(rect, blocksIn_)) {
        work(blocksIn_);
        bp_.writeBackBlock();
    }
}

void TMR::releaseWork() {
    list_.clear();
    blocksOut_.clear();
    blocksIn_.clear();
    scratch_.release();
    t1_.clear();
    t2_.clear();
    bp_ = BlockProcessor();
}

bool TMR::proc(Planes const &a, Planes const &b, Planes &out) {
    if (emptyInput(a)) return true;
    cv::Size const size = a[0].size();
    kxRequire(threePlanes(a, size) && threePlanes(b, size), kBadProc);
    Planes aF, bF, A, B;
    floatPlanes(a.data(), 0, aF);
    floatPlanes(b.data(), 3, bF);
    AFilter f;
    twoBases(f, 0.5f, 25.0f, aF, A, bF, B);
    if (out.size() < 3) out.resize(3);
    for (int i = 0; i < 3; ++i)
        combine(A[i], &bF[i], &B[i], gainOf(i), out[i]);
    return true;
}

bool TMR::proc1(Planes const &a, Planes const &b, Planes &out) {
    if (emptyInput(a)) return true;
    cv::Size const size = a[0].size();
    kxRequire(threePlanes(a, size) && threePlanes(b, size), kBadProc1);
    Planes targets = targetsFor(out, size, {&a, &b});
    eachBlock({&a, &b}, targets, 32, [&](Planes &blk) {
        floatPlanes(&blk[0], 0, floatA_);
        floatPlanes(&blk[3], 3, floatB_);
        twoBases(af_, sigmaR, sigmaS, floatA_, baseA_, floatB_, baseB_);
        for (int i = 0; i < 3; ++i)
            combine(baseA_[i], &floatB_[i], &baseB_[i], gainOf(i), blk[i]);
    });
    finishOut(targets, out);
    releaseWork();
    return true;
}

bool TMR::proc2(Planes const &a, Planes const &b, Planes &out) {
    if (emptyInput(a)) return true;
    cv::Size const size = a[0].size();
    kxRequire(threePlanes(a, size) && threePlanes(b, size), kBadProc2);
    // The halved difference around the mid-level fits 16 bits for any a and b.
    Planes d(3), dF, aF, y;
    for (int i = 0; i < 3; ++i)
        cv::addWeighted(b[i], 0.5, a[i], -0.5, 32768.0, d[i]);
    floatPlanes(d.data(), 3, dF);
    floatPlanes(a.data(), 0, aF);
    AFilter f;
    f.setup(sigmaR, sigmaS, 0, 1, aF);
    f.proc(dF, y);
    Planes targets = targetsFor(out, size, {&a});
    for (int i = 0; i < 3; ++i) {
        combine(y[i], nullptr, nullptr, gainOf(3 + i), d[i]);
        cv::addWeighted(a[i], 1.0, d[i], 2.0, -65536.0, targets[i]);
    }
    finishOut(targets, out);
    return true;
}

// One sweep of proc3: per block, X (the first three slots) filtered by itself, then
// result = F + (P - Q) with P, Q the planes at slots p and q (0 is X itself).
void TMR::sweep3(std::vector<Planes const *> const &groups, Planes const &results, int p, int q) {
    eachBlock(groups, results, 0, [&](Planes &blk) {
        mergeToFloat(&blk[0], 0, floatX_);
        dt_.proc(floatX_, filtered_, 0);
        cv::Mat const &P = p == 0 ? floatX_ : (mergeToFloat(&blk[p], p, floatP_), floatP_);
        cv::Mat const &Q = q == 0 ? floatX_ : (mergeToFloat(&blk[q], q, floatQ_), floatQ_);
        combine3(filtered_, &P, &Q, blk.data());
    });
}

bool TMR::proc3(Planes const &a, Planes const &b, Planes &out) {
    if (emptyInput(a)) return true;
    cv::Size const size = a[0].size();
    kxRequire(threePlanes(a, size) && threePlanes(b, size), kBadProc3);
    Planes targets = targetsFor(out, size, {&a, &b});
    dt_.setup(sigmaS, sigmaR, 3, DTFilter::L2);
    t1_.assign(3, cv::Mat());
    t2_.assign(3, cv::Mat());
    for (int i = 0; i < 3; ++i) {
        t1_[i].create(size, CV_16U);
        t2_[i].create(size, CV_16U);
    }
    sweep3({&b, &a}, t1_, 3, 0);              // t1 = B + (a - b): a without b's detail
    sweep3({&a, &t1_}, t2_, 0, 3);            // t2 = A + (a - t1): a's base with b's detail
    sweep3({&t2_, &a, &t1_}, targets, 3, 6);  // out = base of t2 + (a - t1)
    finishOut(targets, out);
    releaseWork();
    return true;
}

bool TMR::proc4(Planes const &a, Planes const &b, Planes const &c, Planes &out) {
    if (emptyInput(a)) return true;
    cv::Size const size = a[0].size();
    kxRequire(threePlanes(a, size) && threePlanes(b, size) && threePlanes(c, size), kBadProc4);
    Planes targets = targetsFor(out, size, {&a, &b, &c});
    dt_.setup(sigmaS, sigmaR, 3, DTFilter::L2);
    eachBlock({&a, &b}, targets, 0, [&](Planes &blk) {
        mergeToFloat(&blk[0], 0, floatX_);
        mergeToFloat(&blk[3], 3, floatQ_);
        dt_.proc(floatX_, floatQ_, floatX_, 0);
        combine3(floatX_, nullptr, nullptr, blk.data());
    });
    for (int i = 0; i < 3; ++i)
        cv::addWeighted(targets[i], 1.0, c[i], 1.0, -32768.0, targets[i]);
    finishOut(targets, out);
    releaseWork();
    return true;
}

bool TMR::proc5(Planes const &a, Planes const &b, Planes &out) {
    if (emptyInput(a)) return true;
    cv::Size const size = a[0].size();
    kxRequire(threePlanes(a, size) && threePlanes(b, size), kBadProc5);
    Planes targets = targetsFor(out, size, {&a, &b});
    dt_.setup(sigmaS, sigmaR, 3, DTFilter::L1);
    eachBlock({&a, &b}, targets, 0, [&](Planes &blk) {
        mergeToFloat(&blk[0], 0, floatX_);
        mergeToFloat(&blk[3], 3, floatQ_);
        dt_.proc(floatX_, floatQ_, floatX_, 0);  // a under the edges of b
        dt_.proc(floatQ_, filtered_, 0);         // b by itself
        combine3(floatX_, &floatQ_, &filtered_, blk.data());
    });
    finishOut(targets, out);
    releaseWork();
    return true;
}

bool TMR::proc6(Planes const &a, Planes const &b, Planes &out) {
    if (emptyInput(a)) return true;
    cv::Size const size = a[0].size();
    kxRequire(threePlanes(a, size) && threePlanes(b, size), kBadProc6);
    Planes targets = targetsFor(out, size, {&a, &b});
    dt_.setup(sigmaS, sigmaR, 3, DTFilter::L2);
    eachBlock({&a, &b}, targets, 32, [&](Planes &blk) {
        floatPlanes(&blk[0], 0, floatA_);
        floatPlanes(&blk[3], 3, floatB_);
        twoBases(af_, sigmaR, sigmaS, floatA_, baseA_, floatB_, baseB_);
        for (int i = 0; i < 3; ++i)  // the difference of the two bases, signed
            cv::addWeighted(baseA_[i], 1.0, baseB_[i], -1.0, 0.0, baseA_[i]);
        cv::merge(baseA_, floatX_);
        cv::merge(floatB_, floatQ_);
        dt_.proc(floatX_, floatQ_, floatX_, 0);  // smoothed along the edges of b
        combine3(floatQ_, &floatX_, nullptr, blk.data());
    });
    finishOut(targets, out);
    releaseWork();
    return true;
}

bool TMR::procC1(cv::Mat &a, cv::Mat const &b, TProgress *progress) {
    if (a.empty()) return true;
    kxRequire(a.type() == CV_16UC1 && b.type() == CV_16UC1 && a.size() == b.size(), kBadProcC1);
    int const spatial = int(sigmaS), range = int(16384.0 * sigmaR);
    BilateralFilter bf;
    cv::Mat B = b.clone();
    bf.proc(cv::Mat(), B, spatial, range, nullptr);
    if (progress && !progress->prog(40, 100)) return false;
    cv::Mat A = a.clone();
    bf.proc(cv::Mat(), A, spatial, range, nullptr);
    if (progress && !progress->prog(80, 100)) return false;
    addDetail(a, A, b, B);
    return !progress || progress->prog(100, 100);
}

bool TMR::procC2(cv::Mat &a, cv::Mat const &b) {
    if (a.empty()) return true;
    kxRequire(a.type() == CV_16UC1 && b.type() == CV_16UC1 && a.size() == b.size(), kBadProcC2);
    cv::Mat t;
    cv::addWeighted(b, 1.0, a, -1.0, 32768.0, t);
    BilateralFilter bf;
    bf.proc(cv::Mat(), t, int(sigmaS), int(16384.0 * sigmaR), nullptr);
    parallelRows(a.rows, workOf(a) * 2, [&](int y) {
        std::uint16_t const *tt = t.ptr<std::uint16_t>(y);
        std::uint16_t *out = a.ptr<std::uint16_t>(y);
        for (int x = 0; x < a.cols; ++x)
            out[x] = cv::saturate_cast<std::uint16_t>(float(tt[x]) - 32768.0f + float(out[x]));
    });
    return true;
}
