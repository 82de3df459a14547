#include "fabric_model/options.h"

OptionInfo g_option_info;
