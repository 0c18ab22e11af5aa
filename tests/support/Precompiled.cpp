// SPDX-License-Identifier: Apache-2.0
// Holds the precompiled headers that every test program reuses.
