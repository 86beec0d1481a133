/* The whole scene database, with the geometry it is made of. */
#ifndef TOLVIN_VUDB_VUDB_H
#define TOLVIN_VUDB_VUDB_H

#include "../geometry/point3d.h"
#include "../geometry/vumatrix.h"
#include "vuVertex.h"
#include "vudbEntity.h"
#include "vudbFace.h"
#include "vudbGroup.h"
#include "vudbLOD.h"
#include "vudbModel.h"
#include "vudbNode.h"
#include "vudbObject.h"
#include "vudbScene.h"
#include "vudbSwitch.h"
#include "vudbTexture.h"

#endif
