// The tolvin command.
#include "imagecommand.h"
#include "listencommand.h"
#include "modelcommand.h"
#include "noisecommand.h"
#include "playcommand.h"
#include "pluginscommand.h"
#include "receivecommand.h"
#include "recordcommand.h"
#include "runcommand.h"
#include "sendcommand.h"
#include "suncommand.h"
#include "terraincommand.h"

#include <algorithm>
#include <csignal>

#include <fcntl.h>

// No file or socket shall be taken for a standard stream that the caller has closed. What is written to it fails, or, for
// standard error, goes nowhere.
static void occupyStandardStreams()
{
    for (int wanted = 0; wanted <= 2; ++wanted)
    {
        if (fcntl(wanted, F_GETFD) == -1)
        {
            open("/dev/null", wanted == 2 ? O_WRONLY : O_RDONLY); // takes the least free number
        }
    }
}

int main(int argc, char **argv)
{
    occupyStandardStreams();
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow is an error as any other
    tolvin::CommandLine line("tolvin: the run-time kernel of a real-time visual simulation, at work",
                             "tolvin " TOLVIN_VERSION);
    tolvin::addRunCommand(line);
    tolvin::addSendCommand(line);
    tolvin::addReceiveCommand(line);
    tolvin::addListenCommand(line);
    tolvin::addRecordCommand(line);
    tolvin::addPlayCommand(line);
    tolvin::addSunCommand(line);
    tolvin::addNoiseCommand(line);
    tolvin::addImageCommand(line);
    tolvin::addModelCommand(line);
    tolvin::addTerrainCommand(line);
    tolvin::addPluginsCommand(line);
    return line.run({argv + std::min(argc, 1), argv + argc});
}
