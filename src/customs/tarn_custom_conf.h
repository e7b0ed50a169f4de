#pragma once

#include "record/tarn_counter.h"

/// Parses the configuration text into the counter's settings and prints them. Returns 1.
int custom_parse_conf(tarn_mycustom_counter& cnt);
