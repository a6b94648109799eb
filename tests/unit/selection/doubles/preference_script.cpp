// The one script of a program that has one run at a time.

#include "tests/unit/selection/doubles/preferences.h"

namespace doubles {

PreferenceScript& preferences() {
  static PreferenceScript& instance = *new PreferenceScript;
  return instance;
}

}  // namespace doubles
