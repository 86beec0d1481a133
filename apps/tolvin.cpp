// The tolvin command.
#include "imagecommand.h"
#include "noisecommand.h"
#include "runcommand.h"
#include "sendcommand.h"
#include "suncommand.h"

#include <CLI/CLI.hpp>

int main(int argc, char **argv)
{
    CLI::App app("tolvin: the run-time kernel of a real-time visual simulation, at work");
    app.set_version_flag("--version", "tolvin " TOLVIN_VERSION);
    app.require_subcommand(1);
    int exitCode = 0;
    tolvin::addRunCommand(app, exitCode);
    tolvin::addSendCommand(app, exitCode);
    tolvin::addSunCommand(app, exitCode);
    tolvin::addNoiseCommand(app, exitCode);
    tolvin::addImageCommand(app, exitCode);
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
