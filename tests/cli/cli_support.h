// What the tests of the command-line program share: a scratch folder, the program run as a
// child process, and the photographs of data/ in small odd-sized crops.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cli/frame.h"
#include "kestrix1/image/tp_image.h"

namespace kxcli {

namespace fs = std::filesystem;

struct TempDir {
    fs::path path;
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "kestrix-cli-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    std::string operator/(std::string const &name) const { return (path / name).string(); }
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (auto const &e : fs::directory_iterator(path))
            names.insert(e.path().filename());
        return names;
    }
};

inline std::string slurp(fs::path const &p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Runs kestrix in folder `cwd` with the words of `line` as arguments; stdout and stderr are
// captured apart.
inline Outcome kestrix(std::string const &cwd, std::string const &line) {
    TempDir logs;
    std::string const cmd = "cd '" + cwd + "' && '" + KESTRIX_PROGRAM + "' " + line + " >'" +
                            logs / "out" + "' 2>'" + logs / "err" + "' </dev/null";
    int const raw = std::system(cmd.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), slurp(logs.path / "out"),
            slurp(logs.path / "err")};
}

inline cv::Mat photo(std::string const &name) {
    return cv::imread(std::string(KX_DATA_DIR) + "/" + name, cv::IMREAD_UNCHANGED);
}

// Small odd-sized crops: fast under the sanitizers, and the chroma planes round up.
inline cv::Mat crop(cv::Mat const &m, int w = 161, int h = 123) {
    return m(cv::Rect(m.cols / 4, m.rows / 4, w, h)).clone();
}

inline cv::Mat to16(cv::Mat const &m8) {
    cv::Mat m16;
    m8.convertTo(m16, CV_16U, 257.0);
    return m16;
}

inline double maxAbsDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::norm(a, b, cv::NORM_INF);
}

inline double meanAbsDiff(cv::Mat const &a, cv::Mat const &b) {
    cv::Mat d;
    cv::absdiff(a, b, d);
    cv::Scalar const s = cv::mean(d);
    return (s[0] + s[1] + s[2]) / 3.0;
}

// b B + g G + r R of a BGR image, in double; by default its luminance.
inline cv::Mat lumaOf(cv::Mat const &bgr, double b = 0.114, double g = 0.587, double r = 0.299) {
    cv::Mat f, y;
    bgr.convertTo(f, CV_64F);
    cv::transform(f, y, cv::Matx13d(b, g, r));
    return y;
}

// The height of a vertical edge at column x of a plane: the mean of columns x + near to
// x + far minus that of columns x - far to x - near.
inline double edgeHeight(cv::Mat const &plane, int x, int near, int far) {
    return cv::mean(plane.colRange(x + near, x + far))[0] -
           cv::mean(plane.colRange(x - far, x - near))[0];
}

// Into the working image and straight back, as a host converts (packed 8-bit, planar 16-bit).
inline cv::Mat roundTrip(cv::Mat const &bgr) {
    TPImage image;
    cv::Mat out;
    if (bgr.depth() == CV_8U) {
        cv::Mat bgra;
        cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
        image.convertFrom(bgra.data, bgra.cols, bgra.rows, int(bgra.step));
        image.convertTo(bgra.data, int(bgra.step));
        cv::cvtColor(bgra, out, cv::COLOR_BGRA2BGR);
    } else {
        std::vector<cv::Mat> p;
        cv::split(bgr, p);
        unsigned short *rgb[3] = {p[2].ptr<ushort>(), p[1].ptr<ushort>(), p[0].ptr<ushort>()};
        image.convertFrompRGB(rgb, bgr.cols, bgr.rows, int(p[0].step));
        image.convertTopRGB(rgb, int(p[0].step));
        cv::merge(p, out);
    }
    return out;
}

// The settings that the words of `line` give to `command`, parsed as kestrix parses them.
template <class Settings>
Settings parseWith(void (*addOptions)(CLI::App &, Settings &), std::string const &command,
                   std::string const &line) {
    std::istringstream in(line);
    std::vector<std::string> const args{std::istream_iterator<std::string>(in), {}};
    CLI::App app;
    Settings s;
    addOptions(app, s);
    parseCommandLine(app, command, args);
    return s;
}

// The message of the usage error that parsing `line` gives; empty when there is none.
template <class Settings>
std::string usageErrorOf(void (*addOptions)(CLI::App &, Settings &), std::string const &command,
                         std::string const &line) {
    try {
        parseWith(addOptions, command, line);
    } catch (UsageError const &e) {
        return e.what();
    }
    return "";
}

}  // namespace kxcli
