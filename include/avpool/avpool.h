// Everything the library exports. Pool kinds are added here as they are built.
#pragma once

#include <avpool/common.h>
#include <avpool/jpg.h>
#include <avpool/infos.h>
#include <avpool/lum.h>
#include <avpool/md.h>
#include <avpool/mp4.h>
#include <avpool/pcm.h>
#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/opus.h>
