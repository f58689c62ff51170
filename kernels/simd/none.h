// The overloads of an architecture that has none: every operation keeps its general form.
#pragma once
