#pragma once

// Symbols of the shared library are hidden unless marked; every public class and function carries this.
#if defined(LUMO_BUILDING_LIBRARY)
#define LUMO_EXPORT __attribute__((visibility("default")))
#else
#define LUMO_EXPORT
#endif
