// What the tests of models begin and end with.
#pragma once

#include "models/model.h"
#include "models/models.h"

#include <gtest/gtest.h>

namespace models {

// Every test begins and ends without a registry and with a clean status.
class ModelTest : public testing::Test {
protected:
    ModelTest() { reset(); }
    ~ModelTest() override { reset(); }
    static void reset() {
        KTHMMFreeAll();
        KTSetStatus(0);
    }
};

} // namespace models
