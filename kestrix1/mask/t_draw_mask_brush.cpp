// The brush members of TDrawMask.
#include "kestrix1/mask/t_draw_mask.h"
