// What is wrong with a model of the scene database.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <tolvin/vuDB/vudb.h>

namespace tolvin
{

// All faults of one kind.
struct ModelFault
{
    std::string kind; // such as "vertex index out of range"
    std::size_t count;
    std::vector<std::string> examples; // the first kMostExamples of them
};

constexpr std::size_t kMostExamples = 3;

// The kinds of faults of a model and all below it that there are: vertex indices that lead nowhere or to a hole, texture
// indices that lead nowhere, vertices that are not finite, faces without enough corners for their drawing mode or with the same
// corner twice, objects without a box or with one that is flat along an axis, and images of textures that are neither beside
// the model's file nor where findFilePathName finds them with TEXTURE_PATH.
std::vector<ModelFault> faultsOf(const vudbModel &model);

} // namespace tolvin
