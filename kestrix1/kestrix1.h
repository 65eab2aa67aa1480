// kestrix1: photographic effects for photo editors.
//
// The umbrella header: it includes every public header of the library.
//
// Conventions that hold for the whole library, so that member documentation need only say
// what is its own:
//
// - Planes. The working image holds a full-size luminance plane Y and half-size colour
//   difference planes Dr and Db (each side halved, rounded up), all CV_16UC1. Y runs from
//   0 to 65535; Dr and Db are neutral at 32768, as is every detail or difference plane.
//   Table entries are in 16-bit units of 1/65535 unless a member says otherwise.
// - Errors. Wrong arguments are reported by throwing a `char const *` to a fixed text,
//   such as "ERROR - blendAlpha - in0.type()!=in1.type()". Arguments are checked on entry,
//   before any output is touched. Composed texts (with a time and line prefix) stay valid
//   in the catch block. Allocation failures surface as std::bad_alloc or cv::Exception.
// - Empty input (width x height below 1) returns at once and leaves outputs alone.
// - Progress. Long operations take a `TProgress *`, which may be null. A false answer of
//   the host's callback cancels: the operation returns false at its next check.
// - Threads. Loops run in parallel over rows with OpenMP; the library starts no threads of
//   its own and takes no locks. One object is used by one thread at a time.
// - Output. The only console output is timing lines on standard output; trace text goes
//   to the host's sink set with Kestrix::setQDebugFunc.
#pragma once

#include "kestrix1/blocks/block_processor.h"
#include "kestrix1/blocks/tmr.h"
#include "kestrix1/effects/t_details3.h"
#include "kestrix1/filters/a_filter.h"
#include "kestrix1/filters/bilateral_filter.h"
#include "kestrix1/filters/conv_pyr.h"
#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/filters/guided.h"
#include "kestrix1/filters/local_filter.h"
#include "kestrix1/filters/t_wls_filter.h"
#include "kestrix1/filters/tg_filter.h"
#include "kestrix1/frame/geometry.h"
#include "kestrix1/frame/kestrix.h"
#include "kestrix1/frame/t_mat.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/frame/t_uid.h"
#include "kestrix1/hist/color_transfer.h"
#include "kestrix1/hist/hist_match.h"
#include "kestrix1/hist/hist_transfer.h"
#include "kestrix1/hist/lum_transfer.h"
#include "kestrix1/hist/m_hist.h"
#include "kestrix1/hist/normalization.h"
#include "kestrix1/hist/t_hist_draw.h"
#include "kestrix1/image/blend.h"
#include "kestrix1/image/color_management.h"
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/t_filter_box.h"
#include "kestrix1/image/t_image.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/mask/t_draw_mask.h"
#include "kestrix1/mask/t_mask_cmd.h"
#include "kestrix1/tables/mc_spline.h"
#include "kestrix1/tables/selective_color_filter.h"
#include "kestrix1/tables/t_color_adj_d3.h"
#include "kestrix1/tables/t_light_adj_lut_d3.h"
#include "kestrix1/tables/t_lut1d.h"
#include "kestrix1/tables/t_lut_y.h"
#include "kestrix1/tables/t_spline.h"
