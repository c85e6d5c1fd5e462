// "Graph": graphs as calculator values.  A graph value shares a holder with
// every copy of it, so that a change made through one copy is seen through
// all of them; the last copy to go destroys the graph.
//
// Layout behind the tag (the CVar of kwCalcVar.h):
//
//   Graph | GraphHolder*   | count unused | ref unused   | spare unused |
//
//   GraphHolder: | TGraphItem* graph | int32 references |
//
// Node identifiers are the calculator's integers; their low 32 bits name the
// node.
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <memory>

#include "calc/kwCalcVar.h"

namespace kwz::calc {

// The tag the type is registered under; 0 while unregistered.
extern int32_t GraphTypeNum;

struct GraphHolder {
    TGraphItem* graph;
    int32_t references;
};

// True for a value of the graph type (never while it is unregistered).
bool IsGraph(const CVar* v);
// The graph of a graph value, null for anything else.
TGraphItem* GraphOf(const CVar* v);
// Releases v's reference and makes v a graph value holding `graph` alone
// (count 1).  Throws std::bad_alloc (v and graph's owner then unchanged).
void SetGraph(CVar* v, std::unique_ptr<TGraphItem> graph);
// A new empty graph on the shared pool into v (std::bad_alloc).
void SetNewGraph(CVar* v);

// The functions that calculators get, with their names and argument counts;
// the exported CGraph... functions run the same bodies.  Each replaces
// argument 0 by its result; -44 for a graph argument of another type or an
// identifier that is not an Int.  May throw std::bad_alloc.
namespace graphfn {
int32_t New(KWCalcStack* s);
int32_t NodeCount(KWCalcStack* s);
int32_t Nodes(KWCalcStack* s);
int32_t HasNode(KWCalcStack* s);
int32_t AddNode(KWCalcStack* s);
int32_t DelNode(KWCalcStack* s);
int32_t RenameNode(KWCalcStack* s);
int32_t RenameGroup(KWCalcStack* s);
int32_t LinkCount(KWCalcStack* s);
int32_t HasLink(KWCalcStack* s);
int32_t AddLink(KWCalcStack* s);
int32_t AddLinkFirst(KWCalcStack* s);
int32_t MoveLinkFirst(KWCalcStack* s);
int32_t DelLink(KWCalcStack* s);
int32_t NodeLinkCount(KWCalcStack* s);
int32_t NodeLinks(KWCalcStack* s);
int32_t HasGroup(KWCalcStack* s);
int32_t GroupNodes(KWCalcStack* s);
int32_t GroupHasNode(KWCalcStack* s);
int32_t GroupAddNode(KWCalcStack* s);
int32_t GroupDelNode(KWCalcStack* s);
int32_t BuildPath(KWCalcStack* s);
int32_t BuildBord(KWCalcStack* s);
}  // namespace graphfn

// Runs one of the functions above with std::bad_alloc reported as -21 (and
// anything else thrown as -44), logged under `tag`.
int32_t GraphGuarded(const char* tag, int32_t (*fn)(KWCalcStack*), KWCalcStack* s);

// Adds the functions of the calculator table to a new calculator.
void GraphCalcCreate(KWCalcDef* calc);

}  // namespace kwz::calc
