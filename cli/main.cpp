// kestrix: the command-line host of the library, for people who want its effects on their
// photographs without writing a host of their own. Each command lives in its own file and is
// listed here once.
#include <string>
#include <vector>

#include "cli/blend_command.h"
#include "cli/color_command.h"
#include "cli/detail_command.h"
#include "cli/frame.h"
#include "cli/hist_command.h"
#include "cli/icc_command.h"
#include "cli/local_command.h"
#include "cli/mask_command.h"
#include "cli/smooth_command.h"
#include "cli/transfer_command.h"

int main(int argc, char **argv) {
    std::vector<Command const *> const commands = {&detailCommand, &smoothCommand, &localCommand,
                                                   &colorCommand,  &maskCommand,   &transferCommand,
                                                   &histCommand,   &blendCommand,  &iccCommand};
    return runKestrix(commands, std::vector<std::string>(argv + 1, argv + argc), KESTRIX_VERSION);
}
