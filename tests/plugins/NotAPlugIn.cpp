// SPDX-License-Identifier: Apache-2.0
//
// A module that is no plug-in. With SEALSCOPE_TEST_UNRESOLVED it does not even load: it needs a function that is nowhere.
#ifdef SEALSCOPE_TEST_UNRESOLVED
void someFunctionThatIsNowhere();
namespace {
const int called = (someFunctionThatIsNowhere(), 0);
}
#endif
