#include "cli/frame.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <new>
#include <opencv2/imgproc.hpp>
#include <sstream>

#include "kestrix1/image/tp_image.h"

namespace {

constexpr std::size_t kHelpWidth = 100;
constexpr std::size_t kNameColumn = 26;

// Words of `text` in lines of at most `width` columns; the line breaks it has are kept.
std::string wrap(std::string const &text, std::size_t width) {
    std::string out;
    std::istringstream lines(text);
    std::string line;
    bool first = true;
    while (std::getline(lines, line)) {
        if (!first) out += '\n';
        first = false;
        // A line's own indent is kept, for formulas set apart.
        std::size_t const indent = std::min(line.size(), line.find_first_not_of(' '));
        out.append(indent, ' ');
        std::istringstream words(line);
        std::string word;
        std::size_t column = 0;
        while (words >> word) {
            if (column > 0 && indent + column + 1 + word.size() > width) {
                out += '\n';
                column = 0;
            } else if (column > 0) {
                out += ' ';
                ++column;
            }
            out += word;
            column += word.size();
        }
    }
    return out;
}

// CLI11's help in kestrix's layout: the usage line first, the command's description, its
// options by group with their texts wrapped beside the names, the commands with their one-line
// summaries, and the footer.
class HelpFormatter : public CLI::Formatter {
public:
    explicit HelpFormatter(std::vector<Command const *> const &commands) : commands_(commands) {
        column_width(kNameColumn);
    }

    std::string make_help(CLI::App const *app, std::string, CLI::AppFormatMode) const override {
        bool const top = app->get_parent() == nullptr;
        auto inGroup = [app](std::string const &group, bool positional) {
            return app->get_options([&](CLI::Option const *o) {
                return o->get_group() == group && o->get_positional() == positional;
            });
        };
        // A command's own arguments follow INPUT, which every command takes; INPUT may be left
        // out only when nothing follows it.
        std::vector<CLI::Option const *> const arguments = inGroup("Options", true);
        std::string more;
        for (CLI::Option const *o : arguments)
            if (o->get_name() != "INPUT") more += " " + o->get_name();
        std::string out = top ? "Usage: kestrix COMMAND [INPUT] [-o OUTPUT] [options]\n"
                                "       kestrix --help | --version\n"
                              : "Usage: kestrix " + app->get_name() +
                                    (more.empty() ? " [INPUT]" : " INPUT") + more +
                                    " [-o OUTPUT] [options]\n";
        std::string about = app->get_description();
        for (Command const *c : commands_)
            if (!top && c->name == app->get_name()) about = c->about;
        out += "\n" + wrap(about, kHelpWidth) + "\n";

        if (!arguments.empty()) out += "\nArguments:\n";
        for (CLI::Option const *o : arguments)
            out += make_option(o, true);
        for (std::string const &group : app->get_groups()) {
            std::vector<CLI::Option const *> const options = inGroup(group, false);
            if (options.empty()) continue;
            out += "\n" + group + ":\n";
            for (CLI::Option const *o : options)
                out += make_option(o, false);
        }
        if (top) {
            out += "\nCommands:\n";
            for (CLI::App const *sub : app->get_subcommands({}))
                out += make_subcommand(sub);
        }
        if (!app->get_footer().empty()) out += "\n" + wrap(app->get_footer(), kHelpWidth) + "\n";
        return out;
    }

    std::string make_option_desc(CLI::Option const *option) const override {
        return wrap(option->get_description(), kHelpWidth - kNameColumn);
    }

private:
    std::vector<Command const *> commands_;
};

// The long name of a CLI11 name list ("-o,--output" gives "--output").
std::string longName(std::string const &names) {
    std::size_t const at = names.find("--");
    return at == std::string::npos ? names : names.substr(at, names.find(',', at) - at);
}

std::string rangeText(double lo, double hi) {
    char text[64];
    std::snprintf(text, sizeof text, "%g..%g", lo, hi);
    return text;
}

bool toNumber(std::string const &text, double &value) {
    if (text.empty()) return false;
    char *end = nullptr;
    errno = 0;
    value = std::strtod(text.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(value);
}

// What is left on a command's line once CLI11 has taken its options: "--" is CLI11's own
// marker; anything else is an unknown option or a second file, the option named first.
void rejectExtras(CLI::App const &app, std::string const &command) {
    std::vector<std::string> extras = app.remaining();
    extras.erase(std::remove(extras.begin(), extras.end(), "--"), extras.end());
    auto const option = std::find_if(extras.begin(), extras.end(), [](std::string const &e) {
        return e.size() > 1 && e[0] == '-';
    });
    std::string const see = command.empty() ? "kestrix --help" : "kestrix " + command + " --help";
    if (option != extras.end())
        throw UsageError("unknown option '" + *option + "' (see " + see + ")");
    if (extras.empty()) return;
    if (command.empty()) throw UsageError("unknown command '" + extras[0] + "' (see " + see + ")");
    throw UsageError("more than one input file: '" + extras[0] + "'");
}

void parseArgs(CLI::App &app, std::vector<std::string> const &args) {
    // What CLI11 does not take, rejectExtras reports in kestrix's words.
    app.allow_extras();
    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
}

int fail(int status, std::string const &message) {
    std::fprintf(stderr, "kestrix: %s\n", message.c_str());
    return status;
}

void addCommonFiles(CLI::App &app, Command const &command, CommonOptions &options) {
    app.add_option("INPUT", options.input,
                   "the photograph to read: PNG, TIFF or JPEG, 8 or 16 bits, grey, RGB or RGB "
                   "with alpha (default: the sample photograph built into kestrix)")
        ->type_name("");
    std::string const where =
        command.outputFormat
            ? std::string("where to write (default: ") + command.name +
                  formatExtension(*command.outputFormat) + " in the current folder); always a " +
                  formatName(*command.outputFormat) + ", and not the input"
            : "where to write (default: " + command.name +
                  ".png, .tif or .jpg in the current folder, after the input's format); its "
                  "extension must name the input's format and it must not be the input";
    addValue(app, "-o,--output", "FILE", where, [&options](std::string const &v) {
        options.output = v;
    })->group("Files");
}

void addCommonReporting(CLI::App &app, CommonOptions &options) {
    app.add_flag("-q,--quiet", options.quiet,
                 "no progress bar (there is one on stderr only when stderr is a terminal)")
        ->group("Reporting");
    app.add_flag("--time", options.time, "print the time of each stage of the work on stdout")
        ->group("Reporting");
    // Last in its group, after the command's own options.
    app.set_help_flag("-h,--help", "this text")->group("Reporting");
}

}  // namespace

// ---- options ------------------------------------------------------------------------------

void badValue(std::string const &name, std::string const &value, std::string const &expected) {
    // CLI11 passes this one on untouched; runKestrix makes it a usage error.
    throw CLI::ValidationError("bad value '" + value + "' for " + name + " (expected " + expected +
                               ")");
}

bool commaSeparated(std::string const &text, std::vector<double> &numbers) {
    numbers.clear();
    std::size_t start = 0;
    for (;;) {
        std::size_t const comma = text.find(',', start);
        double v = 0;
        if (!toNumber(text.substr(start, comma - start), v)) return false;
        numbers.push_back(v);
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

CLI::Option *addValue(CLI::App &app, std::string const &names, std::string const &placeholder,
                      std::string const &help, std::function<void(std::string const &)> read) {
    std::string const name = longName(names);
    // An option given without its value reaches `read` as an empty text (CLI11 would say
    // "1 required ... missing"); so do values like "-0.5", which look like options.
    auto take = [name, read](std::string const &value) {
        if (value.empty()) throw CLI::ValidationError("option " + name + " needs a value");
        read(value);
    };
    return app.add_option_function<std::string>(names, take, help)
        ->type_name(placeholder)
        ->expected(0, 1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

CLI::Option *addNumbers(CLI::App &app, std::string const &names, std::string const &placeholder,
                        std::string const &help, float *out, int least, int most, float lo,
                        float hi) {
    std::string const name = longName(names);
    std::string const range = rangeText(lo, hi);
    std::string const expected =
        least != most ? std::to_string(least) + " to " + std::to_string(most) +
                            " comma-separated numbers in " + range
        : least == 1 ? "a number in " + range
                     : std::to_string(least) + " comma-separated numbers in " + range;
    return addValue(app, names, placeholder, help, [=](std::string const &value) {
        std::vector<double> numbers;
        bool ok = commaSeparated(value, numbers) && int(numbers.size()) >= least &&
                  int(numbers.size()) <= most;
        for (double v : numbers)
            ok = ok && v >= lo && v <= hi;
        if (!ok) badValue(name, value, expected);
        numbers.resize(std::size_t(most), 0.0);
        std::copy(numbers.begin(), numbers.end(), out);
    });
}

CLI::Option *addWhole(CLI::App &app, std::string const &names, std::string const &placeholder,
                      std::string const &help, int &out, int lo, int hi) {
    std::string const name = longName(names);
    std::string const expected =
        "a whole number from " + std::to_string(lo) + " to " + std::to_string(hi);
    return addValue(app, names, placeholder, help, [=, &out](std::string const &value) {
        char *end = nullptr;
        errno = 0;
        long const v = std::strtol(value.c_str(), &end, 10);
        if (errno != 0 || *end != '\0' || v < lo || v > hi) badValue(name, value, expected);
        out = int(v);
    });
}

// ---- the program --------------------------------------------------------------------------

void parseCommandLine(CLI::App &app, std::string const &command,
                      std::vector<std::string> const &args) {
    try {
        parseArgs(app, args);
    } catch (CLI::ParseError const &e) {
        // --help and --version end the parse with success; the caller answers them.
        if (e.get_exit_code() == 0) throw;
        throw UsageError(e.what());
    }
    rejectExtras(app, command);
}

int runKestrix(std::vector<Command const *> const &commands, std::vector<std::string> const &args,
               char const *version) {
    CLI::App app("Photographic effects of the kestrix1 library on the command line.", "kestrix");
    app.formatter(std::make_shared<HelpFormatter>(commands));
    app.set_help_flag("-h,--help", "this text");
    app.set_version_flag("--version", std::string("kestrix ") + version, "the program's version");
    app.footer("Run 'kestrix COMMAND --help' for the options of a command.");
    // One command a line: once it is chosen, a word that names another command is an option's
    // value or an extra (`--mode detail` of kestrix transfer), never a second command.
    app.require_subcommand(0, 1);

    struct Chosen {
        CLI::App *app = nullptr;
        Command const *command = nullptr;
        CommonOptions options;
        std::function<void(Job &)> run;
    };
    std::vector<Chosen> chosen(commands.size());
    for (std::size_t i = 0; i < commands.size(); ++i) {
        Chosen &c = chosen[i];
        c.command = commands[i];
        c.app = app.add_subcommand(c.command->name, c.command->summary);
        c.app->allow_extras();  // see rejectExtras
        c.app->footer(c.command->footer);
        c.app->group("Commands");
        addCommonFiles(*c.app, *c.command, c.options);
        c.run = c.command->define(*c.app);
        addCommonReporting(*c.app, c.options);
    }

    try {
        parseCommandLine(app, "", args);
        auto const command = std::find_if(chosen.begin(), chosen.end(),
                                          [](Chosen const &c) { return c.app->parsed(); });
        if (command == chosen.end()) throw UsageError("no command given (see kestrix --help)");
        rejectExtras(*command->app, command->command->name);
        Job job(command->command->name, command->options, command->command->outputFormat);
        command->run(job);
        return 0;
    } catch (CLI::ParseError const &e) {
        if (dynamic_cast<CLI::CallForVersion const *>(&e)) {
            std::printf("%s\n", e.what());
        } else {
            CLI::App const *help = &app;
            for (Chosen &c : chosen)
                if (c.app->parsed()) help = c.app;
            std::fputs(help->help().c_str(), stdout);
        }
        return 0;
    } catch (UsageError const &e) {
        return fail(2, e.what());
    } catch (FileError const &e) {
        return fail(1, e.what());
    } catch (char const *text) {
        return fail(1, std::string("the library reported: ") + text);
    } catch (std::bad_alloc const &) {
        return fail(1, "out of memory");
    } catch (cv::Exception const &e) {
        return fail(1, "OpenCV reported: " + e.msg);
    } catch (std::exception const &e) {
        return fail(1, e.what());
    }
}

// ---- one run ------------------------------------------------------------------------------

double Stopwatch::seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A one-line bar on stderr, redrawn in place whenever the whole percentage moves.
bool Job::Bar::report(int thousandths, void *user) {
    auto *bar = static_cast<Bar *>(user);
    int const p = std::min(100, std::max(0, thousandths / 10));
    if (bar->shown && p != bar->percent) {
        char line[31];
        int const filled = p * 30 / 100;
        for (int i = 0; i < 30; ++i)
            line[i] = i < filled ? '#' : '.';
        line[30] = '\0';
        std::fprintf(stderr, "\rkestrix: [%s] %3d%%", line, p);
        std::fflush(stderr);
    }
    bar->percent = p;
    return true;
}

Job::Job(std::string const &command, CommonOptions const &options,
         std::optional<ImageFormat> outputFormat)
    : options_(options), progress_(&Bar::report, &bar_) {
    std::string const input = options.input.empty() ? "the sample photograph" : options.input;
    photo_ = options.input.empty() ? decodePhoto(samplePhoto(), input) : readPhoto(input);

    output_ = options.output;
    ImageFormat const format = outputFormat.value_or(photo_.format);
    if (output_.empty()) {
        output_ = command + formatExtension(format);
    } else {
        ImageFormat named;
        if (!formatFromExtension(output_, named) || named != format)
            throw UsageError("output '" + output_ + "' must be a " + formatName(format) +
                             (outputFormat ? " file" : " file like the input") + " (extension " +
                             formatExtension(format) + ")");
    }
    if (!options.input.empty() && sameFile(output_, options.input))
        throw UsageError("output '" + output_ + "' is the input file; choose another with -o");
    bar_.shown = !options.quiet && ::isatty(STDERR_FILENO);
    if (!options.time) stdout_ = std::cout.rdbuf(nullptr);
}

Job::~Job() {
    if (stdout_) std::cout.rdbuf(stdout_);
    std::cout.clear();
    // The bar's line ends before anything else is printed, an error included.
    if (bar_.shown && bar_.percent >= 0) std::fputs("\n", stderr);
}

void Job::fill(TPImage &image) const {
    fillWorkingImage(photo_.bgr, image);
}

void fillWorkingImage(cv::Mat const &bgr, TPImage &image) {
    if (bgr.depth() == CV_8U) {
        cv::Mat bgra;
        cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
        image.convertFrom(bgra.ptr<unsigned char>(), bgra.cols, bgra.rows, int(bgra.step));
    } else {
        cv::Mat planes[3];
        cv::split(bgr, planes);
        unsigned short *rgb[3] = {planes[2].ptr<unsigned short>(), planes[1].ptr<unsigned short>(),
                                  planes[0].ptr<unsigned short>()};
        image.convertFrompRGB(rgb, bgr.cols, bgr.rows, int(planes[0].step));
    }
}

void Job::time(char const *label, Stopwatch const &watch) const {
    if (options_.time) std::printf("%s%.3f s\n", label, watch.seconds());
}

void Job::finish(TPImage const &image) {
    cv::Mat &bgr = photo_.bgr;
    if (bgr.depth() == CV_8U) {
        cv::Mat bgra(image.height(), image.width(), CV_8UC4);
        image.convertTo(bgra.ptr<unsigned char>(), int(bgra.step));
        cv::cvtColor(bgra, bgr, cv::COLOR_BGRA2BGR);
    } else {
        cv::Mat planes[3];
        for (cv::Mat &p : planes)
            p.create(image.height(), image.width(), CV_16UC1);
        unsigned short *rgb[3] = {planes[2].ptr<unsigned short>(), planes[1].ptr<unsigned short>(),
                                  planes[0].ptr<unsigned short>()};
        image.convertTopRGB(rgb, int(planes[0].step));
        cv::merge(planes, 3, bgr);
    }
    finish();
}

void Job::finish() {
    progress_.done();
    writePhoto(output_, photo_);
}
