/* How the library's interface is made visible: KXMBASMEM_API stands before every exported function,
   variable and class. Includable from C and C++.

   Define KXMBASMEM_STATIC when the library's objects are linked into a program directly. */
#ifndef KXMBasMemExport_h
#define KXMBasMemExport_h

#if defined(KXMBASMEM_STATIC)
#define KXMBASMEM_API
#elif defined(_WIN32)
#if defined(KXMBASMEM_BUILDING)
#define KXMBASMEM_API __declspec(dllexport)
#else
#define KXMBASMEM_API __declspec(dllimport)
#endif
#else
#define KXMBASMEM_API __attribute__((visibility("default")))
#endif

/* Before a class template whose static members all components of a process share. Where the system
   needs more for that, the owner of an instance exports it explicitly. */
#if defined(_WIN32)
#define KXMBASMEM_TEMPLATE
#else
#define KXMBASMEM_TEMPLATE __attribute__((visibility("default")))
#endif

#endif
