#include "kestrix1/hist/m_hist.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>

#include "kestrix1/hist/bin_smoothing.h"
#include "kestrix1/hist/rotation_rounds.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_stats.h"

using cv::Mat;

float const MHist::gR[12][3][4] = {
    {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}},
    {{0.666667f, -0.666667f, 0.333333f, 0},
     {-0.333333f, -0.666667f, -0.666667f, 0},
     {0.666667f, 0.333333f, -0.666667f, 0}},
    {{0.788675f, 0.577349f, 0.211326f, 0},
     {0.211323f, -0.577351f, 0.788675f, 0},
     {-0.57735f, 0.57735f, 0.57735f, 0}},
    {{0.318276f, 0.92219f, -0.219695f, 0},
     {0.67582f, -0.383238f, -0.6296f, 0},
     {0.664806f, -0.051912f, 0.74521f, 0}},
    {{0.913584f, -0.325862f, 0.243263f, 0},
     {0.399929f, 0.611686f, -0.682566f, 0},
     {-0.073622f, -0.72087f, -0.689149f, 0}},
    {{0.436196f, -0.899469f, -0.026234f, 0},
     {-0.153253f, -0.04553f, -0.987137f, 0},
     {0.886705f, 0.434606f, -0.157707f, 0}},
    {{-0.220589f, 0.865659f, -0.449416f, 0},
     {-0.691761f, -0.46368f, -0.553595f, 0},
     {0.68761f, -0.188771f, -0.701112f, 0}},
    {{-0.000462f, -0.913813f, -0.406134f, 0},
     {-0.338314f, -0.382043f, 0.859993f, 0},
     {0.941033f, -0.137798f, 0.308979f, 0}},
    {{0.717047f, -0.625926f, -0.306692f, 0},
     {0.60428f, 0.77753f, -0.17405f, 0},
     {0.347405f, -0.060526f, 0.93576f, 0}},
    {{-0.038166f, -0.609617f, -0.791777f, 0},
     {0.934007f, 0.259895f, -0.245124f, 0},
     {-0.355211f, 0.748881f, -0.559467f, 0}},
    {{0.316407f, 0.945278f, 0.079599f, 0},
     {0.500398f, -0.095029f, -0.860565f, 0},
     {-0.805909f, 0.31212f, -0.503083f, 0}},
    {{0.283582f, 0.583225f, -0.761203f, 0},
     {0.689852f, 0.427302f, 0.584395f, 0},
     {0.666097f, -0.690841f, -0.281164f, 0}},
};

#define KX_BACK(i)                                                                                \
    {                                                                                             \
        {gR[i][0][0], gR[i][1][0], gR[i][2][0], 0}, {gR[i][0][1], gR[i][1][1], gR[i][2][1], 0}, { \
            gR[i][0][2], gR[i][1][2], gR[i][2][2], 0                                              \
        }                                                                                         \
    }
float const MHist::gRinv[12][3][4] = {KX_BACK(0), KX_BACK(1), KX_BACK(2),  KX_BACK(3),
                                      KX_BACK(4), KX_BACK(5), KX_BACK(6),  KX_BACK(7),
                                      KX_BACK(8), KX_BACK(9), KX_BACK(10), KX_BACK(11)};
#undef KX_BACK

namespace {

constexpr int kBins = kxHistBins;
constexpr int kRows = kxRotations;

// Makes m a continuous rows x cols matrix of `type` that no other object shares, keeping its
// contents when it already had that shape: a copy of an MHist shares its matrices, and
// writing through them would change the copy too.
void ownMat(Mat &m, int rows, int cols, int type) {
    bool const fits = m.rows == rows && m.cols == cols && m.type() == type && m.isContinuous();
    if (fits && !(m.u != nullptr && m.u->refcount > 1)) return;
    Mat fresh(rows, cols, type, cv::Scalar::all(0));
    if (fits) m.copyTo(fresh);
    m = fresh;
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Checks, before cv::FileStorage sees it, that a text is XML of the plain form that save
// writes: the declaration, the root element opencv_storage, elements holding either other
// elements or text, closed in order, comments between elements, no attribute but type_id,
// printable ASCII only. OpenCV's parser reads past the end of some broken texts instead of
// reporting them; what passes here it parses or rejects cleanly. Throws cv::Exception.
class XmlCheck {
public:
    explicit XmlCheck(std::string const &text) : s_(text), n_(text.size()) {}

    void run() {
        for (char c : s_) {
            if (!isSpace(c) && (c < 0x20 || c > 0x7e)) fail("a character that is not printable");
        }
        spaces();
        if (!at("<?xml")) fail("no XML declaration");
        i_ += 5;
        attributes(true);
        expect("?>");
        misc();
        expect("<");
        if (name() != "opencv_storage") fail("the root element is not opencv_storage");
        attributes(false);
        expect(">");
        content("opencv_storage", 1);
        misc();
        if (i_ != n_) fail("text after the root element");
    }

private:
    std::string const &s_;
    std::size_t const n_;
    std::size_t i_ = 0;

    [[noreturn]] static void fail(char const *what) {
        CV_Error(cv::Error::StsParseError, std::string("MHist::load - ") + what);
    }
    bool at(char const *lit) const { return s_.compare(i_, std::strlen(lit), lit) == 0; }
    void expect(char const *lit) {
        if (!at(lit)) fail("the text breaks off or is not well formed");
        i_ += std::strlen(lit);
    }
    void spaces() {
        while (i_ < n_ && isSpace(s_[i_]))
            ++i_;
    }
    void misc() {
        for (spaces(); at("<!--"); spaces())
            comment();
    }
    void comment() {
        std::size_t const end = s_.find("-->", i_ + 4);
        if (end == std::string::npos) fail("an unclosed comment");
        i_ = end + 3;
    }
    std::string name() {
        std::size_t const b = i_;
        if (i_ < n_ && (std::isalpha(unsigned(s_[i_])) || s_[i_] == '_')) ++i_;
        while (i_ > b && i_ < n_ &&
               (std::isalnum(unsigned(s_[i_])) || s_[i_] == '_' || s_[i_] == '-' || s_[i_] == '.'))
            ++i_;
        if (i_ == b || i_ - b > 64) fail("a bad element or attribute name");
        return s_.substr(b, i_ - b);
    }
    void attributes(bool declaration) {
        for (;;) {
            std::size_t const before = i_;
            spaces();
            if (i_ >= n_) fail("an unclosed tag");
            if (s_[i_] == '>' || s_[i_] == '/' || s_[i_] == '?') return;
            if (i_ == before) fail("an attribute not set apart");
            std::string const key = name();
            spaces();
            expect("=");
            spaces();
            expect("\"");
            std::size_t const end = s_.find('"', i_);
            if (end == std::string::npos) fail("an unclosed attribute value");
            std::string const value = s_.substr(i_, end - i_);
            if (value.find_first_of("<>&") != std::string::npos || value.size() > 64)
                fail("a bad attribute value");
            if (!declaration && (key != "type_id" || value != "opencv-matrix"))
                fail("an attribute that is not a matrix's type_id");
            i_ = end + 1;
        }
    }
    void content(std::string const &open, int depth) {
        if (depth > 8) fail("elements nested too deep");
        bool text = false, children = false;
        for (;;) {
            if (i_ >= n_) fail("an unclosed element");
            char const c = s_[i_];
            if (isSpace(c)) {
                ++i_;
            } else if (at("</")) {
                i_ += 2;
                if (name() != open) fail("a closing tag that does not match");
                spaces();
                expect(">");
                return;
            } else if (c == '<') {
                if (text) fail("text and elements mixed");
                children = true;
                if (at("<!--")) {
                    comment();
                    continue;
                }
                ++i_;
                std::string const key = name();
                attributes(false);
                if (at("/>")) {
                    i_ += 2;
                } else {
                    expect(">");
                    content(key, depth + 1);
                }
            } else {
                if (children) fail("text and elements mixed");
                text = true;
                token();
            }
        }
    }
    // A word of text, or a string in double quotes, followed by a space or a tag.
    void token() {
        std::size_t const b = i_;
        if (s_[i_] == '"') {
            std::size_t const end = s_.find('"', i_ + 1);
            if (end == std::string::npos) fail("an unclosed string");
            i_ = end + 1;
            if (i_ < n_ && !isSpace(s_[i_]) && s_[i_] != '<') fail("text after a string");
        } else {
            while (i_ < n_ && !isSpace(s_[i_]) && s_[i_] != '<')
                ++i_;
        }
        std::string const word = s_.substr(b, i_ - b);
        if (word.find_first_of(">&\\", 0) != std::string::npos ||
            (word[0] != '"' && word.find('"') != std::string::npos))
            fail("a character that does not belong in a value");
        if (word.size() > 256) fail("a value too long");
    }
};

// The channels of an OpenCV type letter code such as "i" or "3i"; 0 when it is none.
int channelsOf(std::string const &dt) {
    if (dt.empty() || dt.size() > 2 || std::strchr("ucwsifd", dt.back()) == nullptr) return 0;
    if (dt.size() == 1) return 1;
    return dt[0] >= '1' && dt[0] <= '4' ? dt[0] - '0' : 0;
}

// A matrix record, read only when it is whole: a map with whole-number rows and cols, a type
// code and exactly rows x cols x channels numbers. Anything else is an empty Mat.
Mat readMatrix(cv::FileNode const &node) {
    if (!node.isMap()) return Mat();
    cv::FileNode const rows = node["rows"], cols = node["cols"], dt = node["dt"],
                       data = node["data"];
    if (!rows.isInt() || !cols.isInt() || !dt.isString()) return Mat();
    int const r = int(rows), c = int(cols), cn = channelsOf(std::string(dt));
    if (r <= 0 || c <= 0 || cn == 0 || std::int64_t(r) * c * cn > (1 << 24)) return Mat();
    std::size_t const count = std::size_t(r) * c * cn;
    if (data.isSeq()) {
        if (data.size() != count) return Mat();
        for (cv::FileNodeIterator it = data.begin(); it != data.end(); ++it) {
            if (!(*it).isInt() && !(*it).isReal()) return Mat();
        }
    } else if (count != 1 || !(data.isInt() || data.isReal())) {
        return Mat();
    }
    Mat m;
    try {
        cv::read(node, m);
    } catch (cv::Exception const &) {
        return Mat();
    }
    return m;
}

// A number as cv::FileNode gives it, except that a node of another kind gives 1e30.
float readNumber(cv::FileNode const &node) {
    if (node.isNone()) return 0.0f;
    if (node.isInt()) return float(int(node));
    if (node.isReal()) return float(double(node));
    return 1e30f;
}

}  // namespace

bool kxHistUsable(MHist const &h, int row) {
    if (row < 0 || h.Hist.type() != CV_32SC1 || h.Hist.rows <= row || h.Hist.cols != 3 * kBins)
        return false;
    for (Mat const *m : {&h.MaxVal, &h.MinVal, &h.Step}) {
        if (m->type() != CV_32SC3 || m->rows <= row || m->cols != 1) return false;
    }
    return true;
}

void kxStoreCounts(MHist &h, int row, int const *counts, double pixels) {
    ownMat(h.Hist, kRows, 3 * kBins, CV_32SC1);
    ownMat(h.MaxVal, kRows, 1, CV_32SC3);
    ownMat(h.MinVal, kRows, 1, CV_32SC3);
    ownMat(h.Step, kRows, 1, CV_32SC3);
    int *dst = h.Hist.ptr<int>(row);
    parallelRows(3, 3 * kBins,
                 [&](int c) { kxSmoothBins3(counts + c * kBins, dst + c * kBins, kBins); });
    int const highest = *std::max_element(dst, dst + 3 * kBins);
    h.MaxVal.at<cv::Vec3i>(row) = cv::Vec3i::all(32767);
    h.MinVal.at<cv::Vec3i>(row) = cv::Vec3i::all(-32768);
    h.Step.at<cv::Vec3i>(row) = cv::Vec3i::all((32767 - -32768 + 1) / kBins);
    h.HistMax = std::max(h.HistMax, float(highest));
    h.TotalPixels = float(pixels);
}

MHist::MHist() {
    std::uint16_t *table = new std::uint16_t[65536];
    for (int i = 0; i < 65536; ++i)
        table[i] = std::uint16_t(i - 32768);
    signedTable =
        std::shared_ptr<std::uint16_t const>(table, std::default_delete<std::uint16_t[]>());
}

bool MHist::compute(std::vector<Mat> const &planes) {
    if (planes.empty() || planes[0].empty()) return true;
    CV_Assert(planes.size() == 3);
    for (Mat const &p : planes)
        CV_Assert(p.type() == CV_16UC1 && p.size() == planes[0].size());
    std::vector<int> counts(std::size_t(kRows) * 3 * kBins);
    kxCountRotations(planes, counts.data());
    double const pixels = double(planes[0].rows) * planes[0].cols;
    for (int r = 0; r < kRows; ++r)
        kxStoreCounts(*this, r, counts.data() + std::size_t(r) * 3 * kBins, pixels);
    isEmpty = false;
    return true;
}

bool MHist::computeHist(Mat &rotated, int row) {
    CV_Assert(rotated.type() == CV_16SC3 && row >= 0 && row < kRows);
    std::vector<int> counts(3 * kBins, 0);
    if (!rotated.empty()) {
        int *hist[3] = {counts.data(), counts.data() + kBins, counts.data() + 2 * kBins};
        int const levels[3] = {kBins + 1, kBins + 1, kBins + 1};
        int const lower[3] = {-32768, -32768, -32768}, upper[3] = {32768, 32768, 32768};
        pxHistogramEven(rotated.ptr<std::int16_t>(), int(rotated.step),
                        {rotated.cols, rotated.rows}, hist, levels, lower, upper);
    }
    kxStoreCounts(*this, row, counts.data(), double(rotated.rows) * rotated.cols);
    return true;
}

bool MHist::computeComp(Mat &image) {
    CV_Assert(image.type() == CV_16UC3);
    std::vector<int> cube(32768, 0);
    for (int y = 0; y < image.rows; ++y) {
        cv::Vec3w const *p = image.ptr<cv::Vec3w>(y);
        for (int x = 0; x < image.cols; ++x)
            ++cube[((p[x][0] >> 1) & 0xfc00) + ((p[x][1] >> 6) & 0xffe0) + (p[x][2] >> 11)];
    }
    // The five fullest cells: a look at where the colours gather, for debugging only.
    std::vector<int> order(cube.size());
    for (int i = 0; i < int(order.size()); ++i)
        order[i] = i;
    std::partial_sort(order.begin(), order.begin() + 5, order.end(), [&](int a, int b) {
        return cube[a] > cube[b] || (cube[a] == cube[b] && a < b);
    });
    return true;
}

int MHist::clipLevel(float ratio, float level, float share) {
    return kxClipLevel(ratio, level, share, 0.0009765625f);
}

bool MHist::filterHist(int *bins, float sigma) {
    float const s = sigma * 256.0f;
    if (!(s > 0.0f)) return true;
    int const R = 3.0f * s >= float(kBins) ? kBins : int(3.0f * s);
    if (R > 0) kxGaussianBins(bins, kBins, s, R);
    return true;
}

bool MHist::transfer1D(MHist const &target, int *ys, int *xs, float sigma, int row, int channel) {
    CV_Assert(kxHistUsable(*this, row) && kxHistUsable(target, row) && channel >= 0 && channel < 3);
    MHist const *owners[2] = {this, &target};
    int bins[2][kBins];
    double cum[2][kBins + 2];
    for (int k = 0; k < 2; ++k) {
        int const *h = owners[k]->Hist.ptr<int>(row) + channel * kBins;
        int const clip = kxTruncInt(owners[k]->clipValue);
        for (int b = 0; b < kBins; ++b)
            bins[k][b] = std::min(h[b], clip);
        if (sigma > 0.01f) filterHist(bins[k], sigma);
        kxCumulateBins(bins[k], kBins, cum[k], 1);
    }
    // Position of each of this object's cumulative values among the target's, C[i] standing
    // at bin i - 1: equal histograms give back the bin itself.
    double const *mine = cum[0], *theirs = cum[1];
    cv::Vec3i const min0 = MinVal.at<cv::Vec3i>(row), step0 = Step.at<cv::Vec3i>(row);
    cv::Vec3i const min1 = target.MinVal.at<cv::Vec3i>(row), step1 = target.Step.at<cv::Vec3i>(row);
    xs[0] = min0[channel];
    ys[0] = min1[channel];
    int k = 0;
    for (int i = 1; i <= kBins; ++i) {
        double const v = mine[i];
        while (k < kBins && v >= theirs[k + 1])
            ++k;
        double const span = theirs[k + 1] - theirs[k];
        double p = (k - 1) + (span > 0.0 ? (v - theirs[k]) / span : 0.0);
        p = std::min(std::max(p, -1.0), double(kBins));
        xs[i] = (i - 1) * step0[channel] + min0[channel];
        ys[i] = kxTruncInt(min1[channel] + double(step1[channel]) * p);
    }
    xs[kBins + 1] = MaxVal.at<cv::Vec3i>(row)[channel];
    ys[kBins + 1] = target.MaxVal.at<cv::Vec3i>(row)[channel];
    return true;
}

bool MHist::save(std::string &text) {
    cv::FileStorage fs(
        ".xml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_XML);
    fs << "Hist" << Hist << "MaxVal" << MaxVal << "MinVal" << MinVal << "Step" << Step;
    fs << "TotalPixels" << TotalPixels << "HistMax" << HistMax;
    text = fs.releaseAndGetString();
    return true;
}

bool MHist::load(std::string const &text) {
    XmlCheck(text).run();
    cv::FileStorage fs(
        text, cv::FileStorage::READ | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_XML);
    if (!fs.isOpened()) CV_Error(cv::Error::StsParseError, "MHist::load - the text does not open");
    Mat const hist = readMatrix(fs["Hist"]), maxVal = readMatrix(fs["MaxVal"]),
              minVal = readMatrix(fs["MinVal"]), step = readMatrix(fs["Step"]);
    float const total = readNumber(fs["TotalPixels"]), highest = readNumber(fs["HistMax"]);
    Hist = hist;
    MaxVal = maxVal;
    MinVal = minVal;
    Step = step;
    TotalPixels = total;
    HistMax = highest;
    isEmpty = false;
    return true;
}

bool MHist::show(std::string const &name, int channel) {
    (void)name;
    CV_Assert(channel >= 0 && channel < 3);
    plot = Mat(400, 512, CV_8UC3, cv::Scalar::all(0));
    if (Hist.type() != CV_32SC1 || Hist.cols != 3 * kBins || !(HistMax > 0.0f)) return true;
    int const strip = plot.rows / kRows;
    cv::Scalar const colour = channel == 0   ? cv::Scalar(255, 96, 96)
                              : channel == 1 ? cv::Scalar(96, 255, 96)
                                             : cv::Scalar(96, 96, 255);
    for (int r = 0; r < std::min(Hist.rows, kRows); ++r) {
        int const *h = Hist.ptr<int>(r) + channel * kBins;
        int const base = (r + 1) * strip - 1;
        for (int x = 0; x < plot.cols; ++x) {
            double const v = std::max(h[2 * x], h[2 * x + 1]) / double(HistMax);
            int const top = base - int(std::min(std::max(v, 0.0), 1.0) * (strip - 1));
            if (top < base) cv::line(plot, {x, base}, {x, top}, colour);
        }
    }
    return true;
}

bool MHist::empty() {
    return isEmpty;
}
