#pragma once

#include <sys/time.h>

#include <csignal>

#include "process.h"
