// kestrix: the command-line host of the library, for people who want its effects on their
// photographs without writing a host of their own.
#include <cstdio>
#include <exception>
#include <new>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "cli/detail_command.h"
#include "cli/detail_options.h"
#include "cli/image_file.h"

namespace {

char const kUsage[] = R"(Usage: kestrix COMMAND [ARGS]
       kestrix --help | --version

Photographic effects of the kestrix1 library on the command line.

Commands:
  detail [INPUT] [-o OUTPUT] [options]
                 bring out local contrast at three scales and adjust the light of a PNG,
                 TIFF or JPEG photograph (8 or 16 bits); with no INPUT, the bundled
                 sample photograph goes to detail.png

Run 'kestrix detail --help' for the options of a command.
)";

int fail(int status, std::string const &message) {
    std::fprintf(stderr, "kestrix: %s\n", message.c_str());
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> const args(argv + 1, argv + argc);
    if (args.empty()) return fail(2, "no command given (see kestrix --help)");
    std::string const &command = args[0];
    if (command == "-h" || command == "--help" || command == "help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == "--version") {
        std::printf("kestrix %s\n", KESTRIX_VERSION);
        return 0;
    }
    if (command != "detail")
        return fail(2, "unknown command '" + command + "' (see kestrix --help)");

    try {
        DetailOptions const options =
            parseDetailOptions(std::vector<std::string>(args.begin() + 1, args.end()));
        if (options.help) {
            std::fputs(detailHelp().c_str(), stdout);
            return 0;
        }
        runDetail(options);
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
