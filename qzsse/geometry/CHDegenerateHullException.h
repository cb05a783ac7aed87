#pragma once

#include <stdexcept>

// Thrown by the 3-D hull (and so by the Delaunay triangulation built on it) when its points
// span no volume: all collinear, all coplanar, or fewer than four distinct points. Left
// uncaught it ends the process; a caller that expects such input can catch it instead.
class CHDegenerateHullException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
