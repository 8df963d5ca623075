#pragma once
// Shared by the deformation-transfer sources only: the sparse-library headers and the binding of
// the running solver to its thread, through which the library's error handler (which has no user
// pointer) reaches the solver whose stage raised the error.

#include <cholmod.h>
#include <umfpack.h>

#include "KDeformationTransferSolver.h"

namespace Kavrin {

// Makes solver the one that receives sparse-library errors on this thread for the lifetime of
// the scope; scopes nest.
class KActiveSolverScope {
public:
    explicit KActiveSolverScope(KDeformationTransferSolver* solver);
    ~KActiveSolverScope();
    KActiveSolverScope(const KActiveSolverScope&) = delete;
    KActiveSolverScope& operator=(const KActiveSolverScope&) = delete;

private:
    KDeformationTransferSolver* _previous;
};

}  // namespace Kavrin
