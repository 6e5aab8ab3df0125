// Visibility of the names that the module exports. Everything else is hidden.
#pragma once

#define ONEDRIVE4B_EXPORT __attribute__((visibility("default")))
