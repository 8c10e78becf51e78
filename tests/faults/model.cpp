// The model of the random walks judges the fault loops too: built in from its own folder.
#include "model/driver.cpp"  // NOLINT(bugprone-suspicious-include)
