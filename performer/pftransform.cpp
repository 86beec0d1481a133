#include "pftransform.h"

#include "pfbox.hpp"

#include <algorithm>
#include <cstring>

namespace
{

constinit pfType scsType = {"pfSCS", &pfGroupType, nullptr};
constinit pfType dcsType = {"pfDCS", &scsType, nullptr};

void readMatrix(const char *function, const pfSCS *scs, const pfType &type, pfMatrix dst)
{
    if (pfIsGiven(function, scs, type))
    {
        pfCopyMat(dst, scs->matrix);
    }
}

// What stays where it is costs nobody a new box.
void setMatrix(pfDCS &dcs, const pfMatrix matrix)
{
    if (memcmp(dcs.matrix, matrix, sizeof dcs.matrix) != 0)
    {
        const pfBoxChange change(dcs);
        pfCopyMat(dcs.matrix, matrix);
    }
}

} // namespace

pfType *pfGetSCSClassType(void)
{
    return &scsType;
}

pfType *pfGetDCSClassType(void)
{
    return &dcsType;
}

pfSCS *pfNewSCS(const pfMatrix matrix, void *arena)
{
    pfSCS *scs = pfMakeNode<pfSCS>(scsType, NodeKind::Transform, arena);
    if (scs != nullptr && matrix != nullptr)
    {
        pfCopyMat(scs->matrix, matrix);
    }
    else if (scs != nullptr)
    {
        pfMakeIdentMat(scs->matrix);
    }
    return scs;
}

pfDCS *pfNewDCS(void *arena)
{
    pfDCS *dcs = pfMakeNode<pfDCS>(dcsType, NodeKind::Transform, arena);
    if (dcs != nullptr)
    {
        pfMakeIdentMat(dcs->matrix);
    }
    return dcs;
}

void pfGetSCSMat(const pfSCS *scs, pfMatrix dst)
{
    readMatrix(__func__, scs, scsType, dst);
}

void pfGetDCSMat(pfDCS *dcs, pfMatrix dst)
{
    readMatrix(__func__, dcs, dcsType, dst);
}

void pfDCSMat(pfDCS *dcs, const pfMatrix matrix)
{
    if (pfIsGiven(__func__, dcs, dcsType))
    {
        setMatrix(*dcs, matrix);
    }
}

void pfDCSTrans(pfDCS *dcs, float x, float y, float z)
{
    if (pfIsGiven(__func__, dcs, dcsType))
    {
        pfMatrix matrix;
        pfCopyMat(matrix, dcs->matrix);
        matrix[3][0] = x;
        matrix[3][1] = y;
        matrix[3][2] = z;
        setMatrix(*dcs, matrix);
    }
}

void pfDCSRot(pfDCS *dcs, float heading, float pitch, float roll)
{
    if (pfIsGiven(__func__, dcs, dcsType))
    {
        pfMatrix matrix;
        pfMakeEulerMat(matrix, heading, pitch, roll);
        std::copy_n(dcs->matrix[3], 4, matrix[3]);
        setMatrix(*dcs, matrix);
    }
}
