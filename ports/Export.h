#ifndef LUMORA_PORTS_EXPORT_H
#define LUMORA_PORTS_EXPORT_H

/// \file
/// The export macro.

/// \def LUMORA_TRANSPORT_EXPORT
/// Exports the interface of lumora_transport.dll. The library's own build defines
/// LUMORA_TRANSPORT_BUILD; a program that links the objects directly, as the tests do, defines
/// LUMORA_TRANSPORT_STATIC.
#if !defined(_WIN32) || defined(LUMORA_TRANSPORT_STATIC)
#define LUMORA_TRANSPORT_EXPORT
#elif defined(LUMORA_TRANSPORT_BUILD)
#define LUMORA_TRANSPORT_EXPORT __declspec(dllexport)
#else
#define LUMORA_TRANSPORT_EXPORT __declspec(dllimport)
#endif

#endif
