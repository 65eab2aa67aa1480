// Reading and writing the photographs of `kestrix`: PNG, TIFF and JPEG at 8 or 16 bits,
// with every failure turned into one line for the user, and output that appears whole or
// not at all.
#pragma once

#include <opencv2/core.hpp>
#include <stdexcept>
#include <string>
#include <vector>

// A failure the user can act on; the message is one line, the exit status 1.
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class ImageFormat { png, tiff, jpeg };

// "PNG", "TIFF", "JPEG".
char const *formatName(ImageFormat format);
// The extension written by default: ".png", ".tif", ".jpg".
char const *formatExtension(ImageFormat format);

// The format that the extension of `path` names (case-insensitive); false when it names none.
bool formatFromExtension(std::string const &path, ImageFormat &format);

struct Photo {
    cv::Mat bgr;    // CV_8UC3 or CV_16UC3
    cv::Mat alpha;  // CV_8UC1 or CV_16UC1 of the same depth, or empty
    bool grey = false;
    ImageFormat format = ImageFormat::png;
};

// The bytes of a file. Throws FileError for a file that is missing or unreadable.
std::vector<unsigned char> readFile(std::string const &path);

// Puts `bytes` at `path` through a temporary file in the same folder and a rename. Throws
// FileError; on failure nothing is left behind.
void writeFile(std::string const &path, std::vector<unsigned char> const &bytes);

// Reads a PNG, TIFF or JPEG, recognised by its first bytes, not its name. Throws FileError
// for a file that is missing or unreadable, of another format, corrupt, or of a depth other
// than 8 or 16 bits.
Photo readPhoto(std::string const &path);

// The same for the bytes of a file; `path` names it in messages.
Photo decodePhoto(std::vector<unsigned char> const &bytes, std::string const &path);

// The bytes of the sample photograph built into the program (a PNG).
std::vector<unsigned char> samplePhoto();

// Encodes `photo` in its format and bit depth and puts it at `path` through a temporary file
// in the same folder and a rename. Throws FileError; on failure nothing is left behind.
void writePhoto(std::string const &path, Photo const &photo);

// True when `a` and `b` name the same file (the same inode, or the same path once made
// absolute and normal when `b` does not exist yet).
bool sameFile(std::string const &a, std::string const &b);
