// The public header as the library's own modules see it.
#pragma once

#ifndef KTLP6_BUILDING
#define KTLP6_BUILDING
#endif
#include "ktlp6.h"
