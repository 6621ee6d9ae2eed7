#pragma once

// The library is built with hidden symbols; only what a host calls carries this mark.
#define PCP_API __attribute__((visibility("default")))
