/* The analysis category that error reports name: what the solver was doing when memory ran out.
   Takes no lock; the category belongs to the thread that drives the analysis. */
#ifndef KXMBasErrorStack_h
#define KXMBasErrorStack_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus

class KXMBASMEM_API KXMBasErrorContext {
public:
    enum CategoryEnum : int {
        unknown,
        pre,
        elementLoop,
        ordering,
        assembly,
        solver,
        iterativeSolver,
        regularizationSolver,
        lanczosSolver,
        amsSolver,
        contact,
        initialStress,
        package,
        explicitDynamics,
        sensitivityAnalysis,
        linearDynamics,
        cfd,
    };

    KXMBasErrorContext() = default;

    void Category(CategoryEnum value) { category = value; }

    /// Text of the category held, or of the argument. Static storage, never released. The index is
    /// not checked: callers pass one of the values above.
    const char* AsString() const;
    static const char* AsString(CategoryEnum value);

private:
    CategoryEnum category = unknown;
};

class KXMBASMEM_API KXMBasErrorStack {
public:
    static void Context(KXMBasErrorContext::CategoryEnum category);
    static const char* ContextAsString();

private:
    static KXMBasErrorContext s_context;
};

extern "C" {
#endif

/** Sets the category from its number, 0 to 16, for callers in other languages. Not checked. */
KXMBASMEM_API void KXMBasErrorCategory(int category);

#ifdef __cplusplus
}
#endif

#endif
