#if __has_include(<catch2/catch_test_macros.hpp>) // from version 3 on
#include <catch2/catch_test_macros.hpp>
#else
#define CATCH_CONFIG_MAIN
#include <catch2/catch.hpp>
#endif

#include "docs/testing/test_case.hpp"
