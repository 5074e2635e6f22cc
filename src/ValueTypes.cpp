// Value types shared by agents.
#include <Vell/ValueTypes.h>
