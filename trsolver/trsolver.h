// Trust-region nonlinear least squares by reverse communication, free or
// inside bounds, and a central-difference Jacobian.
#pragma once
