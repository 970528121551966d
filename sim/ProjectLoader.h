// Reads a project file into the model of the project. docs/simulator.md describes the file.
#pragma once

#include "Project.h"

#include <stdexcept>

/// What is wrong with a project file, with file and line.
class CProjectError : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/// An empty path is the built-in demonstration project. Throws CProjectError.
SProject LoadProject(const std::string& strPath);
