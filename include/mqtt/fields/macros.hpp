#pragma once

// How `mqtt/fields.hpp` repeats a macro for each field of a list. Applications do not use it.

// One line for each number of fields: few expansions stand between an error in a list and its
// cause.
// clang-format off
#define ZYM_MQTT_EACH_1(m, t, a) m(t, a)
#define ZYM_MQTT_EACH_2(m, t, a, b) m(t, a) m(t, b)
#define ZYM_MQTT_EACH_3(m, t, a, b, c) m(t, a) m(t, b) m(t, c)
#define ZYM_MQTT_EACH_4(m, t, a, b, c, d) m(t, a) m(t, b) m(t, c) m(t, d)
#define ZYM_MQTT_EACH_5(m, t, a, b, c, d, e) m(t, a) m(t, b) m(t, c) m(t, d) m(t, e)
#define ZYM_MQTT_EACH_6(m, t, a, b, c, d, e, f) m(t, a) m(t, b) m(t, c) m(t, d) m(t, e) m(t, f)
#define ZYM_MQTT_EACH_7(m, t, a, b, c, d, e, f, g) m(t, a) m(t, b) m(t, c) m(t, d) m(t, e) m(t, f) m(t, g)
#define ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) m(t, a) m(t, b) m(t, c) m(t, d) m(t, e) m(t, f) m(t, g) m(t, h)
#define ZYM_MQTT_EACH_9(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_1(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_10(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_2(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_11(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_3(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_12(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_4(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_13(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_5(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_14(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_6(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_15(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_7(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_16(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_8(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_17(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_9(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_18(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_10(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_19(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_11(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_20(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_12(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_21(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_13(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_22(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_14(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_23(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_15(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_24(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_16(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_25(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_17(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_26(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_18(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_27(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_19(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_28(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_20(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_29(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_21(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_30(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_22(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_31(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_23(m, t, __VA_ARGS__)
#define ZYM_MQTT_EACH_32(m, t, a, b, c, d, e, f, g, h, ...) ZYM_MQTT_EACH_8(m, t, a, b, c, d, e, f, g, h) ZYM_MQTT_EACH_24(m, t, __VA_ARGS__)

#define ZYM_MQTT_EACH_TOO_MANY(...)

#define ZYM_MQTT_65TH(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, _17, _18, _19, _20, _21, _22, _23, _24, _25, _26, _27, _28, _29, _30, _31, _32, _33, _34, _35, _36, _37, _38, _39, _40, _41, _42, _43, _44, _45, _46, _47, _48, _49, _50, _51, _52, _53, _54, _55, _56, _57, _58, _59, _60, _61, _62, _63, _64, result, ...) result
#define ZYM_MQTT_32(x) x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x
#define ZYM_MQTT_COUNT_IN(...) ZYM_MQTT_65TH(__VA_ARGS__)
#define ZYM_MQTT_COUNT(...) ZYM_MQTT_COUNT_IN(__VA_ARGS__, ZYM_MQTT_32(TOO_MANY), 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
// clang-format on

/// Whether a count is a number, of one or two digits, and not TOO_MANY. Compilers do not report a
/// static_assert(false) inside a template.
#define ZYM_MQTT_IS_COUNTED(count) (sizeof(ZYM_MQTT_TEXT(count)) <= sizeof("32"))
#define ZYM_MQTT_TEXT(count) #count

#define ZYM_MQTT_JOIN(a, b) a##b
#define ZYM_MQTT_EACH_OF(count) ZYM_MQTT_JOIN(ZYM_MQTT_EACH_, count)
/// `m(t, field)` for each of 1 to 32 fields.
#define ZYM_MQTT_EACH(m, t, ...) ZYM_MQTT_EACH_OF(ZYM_MQTT_COUNT(__VA_ARGS__))(m, t, __VA_ARGS__)
