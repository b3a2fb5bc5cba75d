// The small services of the library, all at once. Each concern has a header of its own.
#pragma once

#include "utl/utlbits.h"
#include "utl/utlchecksum.h"
#include "utl/utlfilename.h"
#include "utl/utlglob.h"
#include "utl/utlsystem.h"
#include "utl/utltext.h"
#include "utl/xchar.h"
