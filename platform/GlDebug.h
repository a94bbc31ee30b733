#pragma once

// Debug-build diagnostics. The release library is silent about GL failures; with LUMO_GL_CHECKS these
// report shader info logs, GL errors and incomplete framebuffers through lumo::log.
namespace lumo::gldebug {

void checkShader(unsigned shader, const char* what);
void checkProgram(unsigned program, const char* what);
void checkError(const char* where);
void checkFramebuffer(const char* where);
// Drops errors an expected call raised, so that the next check reports only new ones.
void discardErrors();

}  // namespace lumo::gldebug
