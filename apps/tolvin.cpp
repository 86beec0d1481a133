// The tolvin command.
#include "imagecommand.h"
#include "modelcommand.h"
#include "noisecommand.h"
#include "pluginscommand.h"
#include "runcommand.h"
#include "sendcommand.h"
#include "suncommand.h"
#include "terraincommand.h"

#include <CLI/CLI.hpp>

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
    CLI::App app("tolvin: the run-time kernel of a real-time visual simulation, at work");
    app.set_version_flag("--version", "tolvin " TOLVIN_VERSION);
    app.require_subcommand(1);
    int exitCode = 0;
    tolvin::addRunCommand(app, exitCode);
    tolvin::addSendCommand(app, exitCode);
    tolvin::addSunCommand(app, exitCode);
    tolvin::addNoiseCommand(app, exitCode);
    tolvin::addImageCommand(app, exitCode);
    tolvin::addModelCommand(app, exitCode);
    tolvin::addTerrainCommand(app, exitCode);
    tolvin::addPluginsCommand(app, exitCode);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &error)
    {
        // Help and version end with 0; every mistake on the command line with 2.
        return app.exit(error) == 0 ? 0 : 2;
    }
    return exitCode;
}
