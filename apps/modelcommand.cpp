#include "modelcommand.h"

#include "counted.h"
#include "exitcode.h"
#include "modelcheck.h"
#include "modelscene.h"
#include "plaintext.h"

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolvin
{

namespace
{

struct ModelOptions
{
    std::vector<std::string> files;
    bool check = false;
    bool hierarchy = false;
};

std::string boxText(const vudbNode &node)
{
    const vudbBoundingBox *const box = vudbNodeGetBoundingBox(&node);
    if (box == nullptr)
    {
        return "no box";
    }
    char text[200];
    std::snprintf(text, sizeof text, "box %g to %g, %g to %g, %g to %g", box->xmin, box->xmax, box->ymin, box->ymax,
                  box->zmin, box->zmax);
    return text;
}

void printStatistics(const vudbModel &model, const ModelStatistics &s)
{
    std::printf("%s: %s, %s, %s, %s\n", vudbModelGetFile(&model), counted(s.objects, "object").c_str(),
                counted(s.lods, "LOD").c_str(), counted(s.textures, "texture").c_str(),
                counted(s.faces, "face").c_str());
    const double share = s.vertices == 0 ? 0.0 : static_cast<double>(s.fileVertices) / static_cast<double>(s.vertices);
    std::printf("  %s; vertices: %zu as read, %zu different, %.2f to 1\n", counted(s.corners, "corner").c_str(),
                s.fileVertices, s.vertices, share);
    std::printf("  %s\n", boxText(model.group.node).c_str());
    std::printf("  read in %.3f s, merged in %.3f s, built in %.3f s\n", s.readSeconds, s.mergeSeconds, s.buildSeconds);
}

// Objects and LODs below a node.
void printParts(const vudbNode *node)
{
    const std::string name = plainText(vudbNodeGetName(node));
    if (vudbNodeGetType(node) == VUDB_LOD)
    {
        const auto *const lod = reinterpret_cast<const vudbLOD *>(node);
        std::printf("  LOD %s: %g to %g away\n", name.c_str(), lod->outDistance, lod->inDistance);
    }
    else if (vudbNodeGetType(node) == VUDB_OBJECT)
    {
        std::printf("  object %s: %s\n", name.c_str(), boxText(*node).c_str());
    }
    const auto *const group = reinterpret_cast<const vudbGroup *>(node);
    for (int i = 0; i < vudbGroupGetNumberOfChildren(group); ++i)
    {
        vudbNode *const child = vudbGroupGetIndexedChild(group, i);
        if (vudbNodeGetType(child) != VUDB_FACE)
        {
            printParts(child);
        }
    }
}

// Returns how many faults there are.
std::size_t printFaults(const vudbModel &model)
{
    std::size_t count = 0;
    for (const auto &[kind, number, examples] : faultsOf(model))
    {
        std::printf("  %s: %zu", kind.c_str(), number);
        for (std::size_t i = 0; i < examples.size(); ++i)
        {
            std::printf("%s%s", i == 0 ? " (" : "; ", plainText(examples[i]).c_str());
        }
        std::printf("%s)\n", number > examples.size() ? "; ..." : "");
        count += number;
    }
    return count;
}

// Returns how many faults there are.
std::size_t showModel(ModelScene &scene, const std::string &file, const ModelOptions &options)
{
    const ModelStatistics statistics = scene.import(file);
    const vudbModel &model = *scene.models().back();
    printStatistics(model, statistics);
    printParts(&model.group.node);
    if (!options.check)
    {
        if (statistics.strayCorners > 0)
        {
            throw std::runtime_error(file + ": " + counted(statistics.strayCorners, "corner") +
                                     " with an index of a vertex out of range: --check tells where");
        }
        return 0;
    }
    const std::size_t faults = printFaults(model);
    std::printf("%s", faults == 0 ? "  no faults\n" : "");
    return faults;
}

void printHierarchy(ModelScene &scene, bool whatever)
{
    constexpr std::size_t kFew = 200;
    if (whatever || scene.nodeCount() <= kFew)
    {
        vudbGroupPrintHierarchy(stdout, &scene.scene()->node);
        return;
    }
    std::printf("%s in the hierarchy: --hierarchy prints them\n", counted(scene.nodeCount(), "node").c_str());
}

void runModel(const ModelOptions &options)
{
    ModelScene scene;
    std::size_t faults = 0;
    std::size_t broken = 0;
    for (const std::string &file : options.files)
    {
        try
        {
            faults += showModel(scene, file, options);
        }
        catch (const std::runtime_error &error)
        {
            if (options.files.size() == 1)
            {
                throw;
            }
            std::fprintf(stderr, "Error: %s\n", error.what());
            ++broken; // and the others go on
        }
    }
    printHierarchy(scene, options.hierarchy);
    flushOutput();
    if (broken > 0 || faults > 0)
    {
        throw std::runtime_error((broken > 0 ? counted(broken, "file") + " cannot be read" : "") +
                                 (broken > 0 && faults > 0 ? ", " : "") +
                                 (faults > 0 ? counted(faults, "fault") + " found" : ""));
    }
}

} // namespace

void addModelCommand(CommandLine &line)
{
    const auto options = std::make_shared<ModelOptions>();
    const Command command = line.addCommand("model", "read model files into the scene database and describe them",
                                            [options] { runModel(*options); });
    command.widerHelp();
    command.add("files", options->files, "model files: OBJ, glTF, PLY and whatever else Assimp reads").required();
    command.addFlag("--check", options->check, "report what is wrong with them");
    command.addFlag("--hierarchy", options->hierarchy, "print every node, however many there are");
}

} // namespace tolvin
