#include "cli/image_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string quoted(std::string const &path) {
    return "'" + path + "'";
}

bool startsWith(std::vector<unsigned char> const &bytes, char const *magic, std::size_t n) {
    return bytes.size() >= n && std::memcmp(bytes.data(), magic, n) == 0;
}

bool sniff(std::vector<unsigned char> const &bytes, ImageFormat &format) {
    if (startsWith(bytes, "\x89PNG\r\n\x1a\n", 8)) {
        format = ImageFormat::png;
    } else if (startsWith(bytes, "\xff\xd8\xff", 3)) {
        format = ImageFormat::jpeg;
    } else if (startsWith(bytes, "II*\0", 4) || startsWith(bytes, "MM\0*", 4)) {
        format = ImageFormat::tiff;
    } else {
        return false;
    }
    return true;
}

// The JPEG decoder fills a cut-off file with grey and only warns, so a missing end marker is
// looked for here: the markers are walked up to the first scan of the main image (thumbnails
// inside APP segments are skipped with their segment), and an end marker must follow it.
bool jpegComplete(std::vector<unsigned char> const &bytes) {
    std::size_t pos = 2;
    std::size_t const n = bytes.size();
    while (pos + 4 <= n) {
        if (bytes[pos] != 0xff) return false;
        unsigned char const marker = bytes[pos + 1];
        if (marker == 0xff) {  // fill byte
            ++pos;
            continue;
        }
        if (marker == 0xda) break;
        std::size_t const length = (std::size_t(bytes[pos + 2]) << 8) | bytes[pos + 3];
        pos += 2 + length;
    }
    for (std::size_t i = pos; i + 1 < n; ++i)
        if (bytes[i] == 0xff && bytes[i + 1] == 0xd9) return true;
    return false;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

// The codecs print their own warnings and errors on stderr ("libpng error: ..."); the user is
// to see one line of ours instead, so stderr points to /dev/null while they run.
struct QuietCodecs {
    int saved = -1;
    QuietCodecs() {
        std::fflush(stderr);
        int const null = ::open("/dev/null", O_WRONLY);
        if (null < 0) return;
        saved = ::dup(STDERR_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::close(null);
    }
    ~QuietCodecs() {
        if (saved < 0) return;
        std::fflush(stderr);
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
    }
};

// Closes and removes the temporary file unless released.
struct TempFile {
    std::string path;
    int fd = -1;
    bool keep = false;
    ~TempFile() {
        if (fd >= 0) ::close(fd);
        if (!keep && !path.empty()) ::unlink(path.c_str());
    }
};

}  // namespace

char const *formatName(ImageFormat format) {
    switch (format) {
        case ImageFormat::png:
            return "PNG";
        case ImageFormat::tiff:
            return "TIFF";
        default:
            return "JPEG";
    }
}

char const *formatExtension(ImageFormat format) {
    switch (format) {
        case ImageFormat::png:
            return ".png";
        case ImageFormat::tiff:
            return ".tif";
        default:
            return ".jpg";
    }
}

bool formatFromExtension(std::string const &path, ImageFormat &format) {
    std::string const ext = lower(fs::path(path).extension().string());
    if (ext == ".png") {
        format = ImageFormat::png;
    } else if (ext == ".tif" || ext == ".tiff") {
        format = ImageFormat::tiff;
    } else if (ext == ".jpg" || ext == ".jpeg") {
        format = ImageFormat::jpeg;
    } else {
        return false;
    }
    return true;
}

std::vector<unsigned char> readFile(std::string const &path) {
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (!file) throw FileError("cannot open " + quoted(path) + ": " + std::strerror(errno));
    std::vector<unsigned char> bytes;
    unsigned char chunk[65536];
    std::size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + n);
    int const failed = std::ferror(file);
    int const error = errno;
    std::fclose(file);
    if (failed)
        throw FileError("cannot read " + quoted(path) + ": " +
                        std::strerror(error == 0 ? EIO : error));
    return bytes;
}

Photo readPhoto(std::string const &path) {
    std::error_code ec;
    if (fs::is_directory(path, ec))
        throw FileError("cannot read " + quoted(path) + ": it is a folder");
    return decodePhoto(readFile(path), path);
}

Photo decodePhoto(std::vector<unsigned char> const &bytes, std::string const &path) {
    Photo photo;
    if (!sniff(bytes, photo.format))
        throw FileError(quoted(path) + " is not a PNG, TIFF or JPEG image");
    std::string const corrupt =
        quoted(path) + " is a corrupt or truncated " + formatName(photo.format) + " image";
    if (photo.format == ImageFormat::jpeg && !jpegComplete(bytes)) throw FileError(corrupt);

    cv::Mat image;
    try {
        QuietCodecs quiet;
        image = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    } catch (cv::Exception const &) {
        throw FileError(corrupt);
    }
    if (image.empty()) throw FileError(corrupt);
    if (image.depth() != CV_8U && image.depth() != CV_16U)
        throw FileError(quoted(path) + ": only 8- and 16-bit images are supported");

    switch (image.channels()) {
        case 1:
            photo.grey = true;
            cv::cvtColor(image, photo.bgr, cv::COLOR_GRAY2BGR);
            break;
        case 2: {
            cv::Mat planes[2];
            cv::split(image, planes);
            photo.grey = true;
            cv::cvtColor(planes[0], photo.bgr, cv::COLOR_GRAY2BGR);
            photo.alpha = planes[1];
            break;
        }
        case 3:
            photo.bgr = image;
            break;
        case 4: {
            cv::Mat planes[4];
            cv::split(image, planes);
            cv::merge(planes, 3, photo.bgr);
            photo.alpha = planes[3];
            break;
        }
        default:
            throw FileError(quoted(path) + ": images of " + std::to_string(image.channels()) +
                            " channels are not supported");
    }
    return photo;
}

void writePhoto(std::string const &path, Photo const &photo) {
    cv::Mat image;
    if (photo.grey) {
        cv::Mat grey;
        cv::cvtColor(photo.bgr, grey, cv::COLOR_BGR2GRAY);
        if (photo.alpha.empty()) {
            image = grey;
        } else {
            // The encoders take no grey with alpha: it goes out as RGB with alpha.
            cv::Mat const planes[4] = {grey, grey, grey, photo.alpha};
            cv::merge(planes, 4, image);
        }
    } else if (photo.alpha.empty()) {
        image = photo.bgr;
    } else {
        cv::Mat planes[4];
        cv::split(photo.bgr, planes);
        planes[3] = photo.alpha;
        cv::merge(planes, 4, image);
    }

    std::vector<int> params;
    if (photo.format == ImageFormat::jpeg) params = {cv::IMWRITE_JPEG_QUALITY, 95};
    std::vector<unsigned char> bytes;
    bool encoded = false;
    try {
        QuietCodecs quiet;
        encoded = cv::imencode(formatExtension(photo.format), image, bytes, params);
    } catch (cv::Exception const &) {
        encoded = false;
    }
    if (!encoded)
        throw FileError(std::string("cannot encode the result as ") + formatName(photo.format));

    writeFile(path, bytes);
}

void writeFile(std::string const &path, std::vector<unsigned char> const &bytes) {
    fs::path const target(path);
    fs::path const folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    TempFile temp;
    temp.path = (folder / ("." + target.filename().string() + ".kestrix-XXXXXX")).string();
    std::vector<char> name(temp.path.begin(), temp.path.end());
    name.push_back('\0');
    temp.fd = ::mkstemp(name.data());
    if (temp.fd < 0) {
        temp.path.clear();
        throw FileError("cannot write " + quoted(path) + ": " + std::strerror(errno));
    }
    temp.path = name.data();

    auto fail = [&](int error) {
        throw FileError("cannot write " + quoted(path) + ": " + std::strerror(error));
    };
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t const n = ::write(temp.fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail(errno);
        }
        done += std::size_t(n);
    }
    // mkstemp makes the file private; a result is an ordinary file under the user's umask.
    mode_t const mask = ::umask(0);
    ::umask(mask);
    if (::fchmod(temp.fd, 0666 & ~mask) != 0) fail(errno);
    int const fd = temp.fd;
    temp.fd = -1;
    if (::close(fd) != 0) fail(errno);
    if (::rename(temp.path.c_str(), path.c_str()) != 0) fail(errno);
    temp.keep = true;
}

bool sameFile(std::string const &a, std::string const &b) {
    struct stat sa, sb;
    if (::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0)
        return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
    std::error_code ea, eb;
    fs::path const pa = fs::weakly_canonical(fs::absolute(a), ea);
    fs::path const pb = fs::weakly_canonical(fs::absolute(b), eb);
    return !ea && !eb && pa == pb;
}
