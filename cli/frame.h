// The frame of `kestrix`: what every command shares, so that a command is one file holding its
// settings, its options and its run function.
//
// The command line is parsed by CLI11. Values are read by kestrix itself, so that a wrong one
// gives one line naming the option and what it expects ("bad value '2' for --fine (expected
// ...)"). A run reads an 8- or 16-bit PNG, TIFF or JPEG (the embedded sample photograph when
// no INPUT is given), fills a working image, shows a progress bar on a terminal, times its
// stages on request, reads the result back at the input's depth and writes it through a
// temporary file and a rename. Exit statuses: 0 done, 1 the image could not be read,
// processed or written, 2 the command line is wrong.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/image_file.h"
#include "kestrix1/frame/t_progress.h"

class TPImage;

// A wrong command line: the message is one line for the user, the exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What every command takes besides its own settings.
struct CommonOptions {
    std::string input;   // empty: the embedded sample photograph
    std::string output;  // empty: <command>.<extension of the input's format>
    bool quiet = false;  // no progress bar
    bool time = false;   // print the time of each stage on stdout
};

class Job;

// One command of kestrix. `define` adds the command's own options to its CLI11 subcommand and
// returns the function that runs it once the line is parsed; commandOf() builds it from a
// settings struct, a function adding its options and a run function.
struct Command {
    std::string name;
    std::string summary;  // one line in `kestrix --help`
    std::string about;    // the head of `kestrix NAME --help`
    std::string footer;   // after the options in `kestrix NAME --help`; may be empty
    std::function<std::function<void(Job &)>(CLI::App &)> define;
    // The format the command writes whatever the input's (a mask is a PNG); empty: the input's.
    std::optional<ImageFormat> outputFormat;
};

template <class Settings>
Command commandOf(std::string name, std::string summary, std::string about, std::string footer,
                  void (*addOptions)(CLI::App &, Settings &),
                  void (*run)(Settings const &, Job &)) {
    auto define = [addOptions, run](CLI::App &app) {
        auto settings = std::make_shared<Settings>();
        addOptions(app, *settings);
        return std::function<void(Job &)>([settings, run](Job &job) { run(*settings, job); });
    };
    return {std::move(name), std::move(summary), std::move(about), std::move(footer), define,
            std::nullopt};
}

// The whole program but main(): parses `args` (without the program's name), runs the chosen
// command and returns the exit status. Help and the version go to stdout, errors as one line
// "kestrix: ..." to stderr.
int runKestrix(std::vector<Command const *> const &commands, std::vector<std::string> const &args,
               char const *version);

// Parses `args` into the subcommand `app` of `command`, whose options have been added, as
// runKestrix does: every wrong line becomes a UsageError. For tests of a command's options.
void parseCommandLine(CLI::App &app, std::string const &command,
                      std::vector<std::string> const &args);

// ---- options whose values kestrix reads ---------------------------------------------------

// Throws the usage error of a wrong value: "bad value 'VALUE' for NAME (expected EXPECTED)".
[[noreturn]] void badValue(std::string const &name, std::string const &value,
                           std::string const &expected);

// Reads "a,b,c" as finite numbers; false when a field is empty or not a number.
bool commaSeparated(std::string const &text, std::vector<double> &numbers);

// An option with one value, given to `read` as text once the whole line is parsed; options
// are read in the order they were added, whatever their order on the line, and the last
// occurrence counts. `read` throws badValue for a value it cannot take. `names` is CLI11's
// list ("-o,--output"); messages use the long name.
CLI::Option *addValue(CLI::App &app, std::string const &names, std::string const &placeholder,
                      std::string const &help, std::function<void(std::string const &)> read);

// Between `least` and `most` comma-separated numbers, each in lo..hi, into out[0..most-1];
// entries not given become 0.
CLI::Option *addNumbers(CLI::App &app, std::string const &names, std::string const &placeholder,
                        std::string const &help, float *out, int least, int most, float lo,
                        float hi);

// A whole number in lo..hi.
CLI::Option *addWhole(CLI::App &app, std::string const &names, std::string const &placeholder,
                      std::string const &help, int &out, int lo, int hi);

// ---- one run ------------------------------------------------------------------------------

struct Stopwatch {
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    double seconds() const;
};

// One run of a command over one photograph. Construction reads the input and settles the
// output's name, both before any work: a wrong output name is a usage error found at once.
// The output takes the input's format unless `outputFormat` names another.
// The timing lines that some of the library's filters print on std::cout are shown only with
// --time; for the rest of the job std::cout goes nowhere.
class Job {
public:
    Job(std::string const &command, CommonOptions const &options,
        std::optional<ImageFormat> outputFormat = std::nullopt);
    ~Job();
    Job(Job const &) = delete;
    Job &operator=(Job const &) = delete;

    // The photograph as read; a command may change it (a region crops its alpha).
    Photo &photo() { return photo_; }
    std::string const &output() const { return output_; }
    // The input's path; empty for the sample photograph.
    std::string const &input() const { return options_.input; }

    // Progress of the run: a bar on stderr when it is a terminal and --quiet is not given.
    TProgress *progress() { return &progress_; }

    // The colour planes of the photograph in a working image (see fillWorkingImage).
    void fill(TPImage &image) const;

    // Prints "LABEL<seconds> s" on stdout when --time is given.
    void time(char const *label, Stopwatch const &watch) const;
    bool timing() const { return options_.time; }

    // Reads `image` back at the photograph's depth and writes the photograph.
    void finish(TPImage const &image);
    // Writes the photograph as the command left it in photo().
    void finish();

private:
    struct Bar {
        bool shown = false;
        int percent = -1;
        static bool report(int thousandths, void *user);
    };

    CommonOptions options_;
    Photo photo_;
    std::string output_;
    Bar bar_;
    TProgress progress_;
    std::streambuf *stdout_ = nullptr;  // std::cout's own buffer while the library's is muted
};

// The colour planes of an 8- or 16-bit BGR image in a working image, through the library's
// conversions from host buffers (packed 8-bit, planar 16-bit).
void fillWorkingImage(cv::Mat const &bgr, TPImage &image);
