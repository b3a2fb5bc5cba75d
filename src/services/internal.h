// What the sources of the services share.
//
//   stamps    utltime.cpp, utllogname.cpp
//   others    public alone
#pragma once

#include <povzel/utltime.h>

// UtlCtime for now, also from 2038 on, which a time_t cannot tell (utltime.cpp).
char* utlCtimeOfNow(ZelCTimeStringType* result);
