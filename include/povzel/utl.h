// The small services of the library, all at once. Each concern has a header of its own.
#pragma once

#include <povzel/utlbits.h>
#include <povzel/utlchecksum.h>
#include <povzel/utlfilename.h>
#include <povzel/utlglob.h>
#include <povzel/utlsystem.h>
#include <povzel/utltext.h>
#include <povzel/xchar.h>
