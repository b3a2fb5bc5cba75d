#pragma once

#include "process.h"
