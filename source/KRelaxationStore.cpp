#include "KRelaxationStore.h"

#include <maya/MArrayDataBuilder.h>
#include <maya/MArrayDataHandle.h>
#include <maya/MDataHandle.h>

#include "KRelaxationMeshDeformer.h"

namespace KRelaxationStore {

namespace {

typedef KRelaxationMeshDeformer Node;

// The values of the array child of the current element of a compound array.
template <typename T, typename Get>
void ReadChild(MArrayDataHandle& list, const MObject& child, std::vector<T>& values, Get get) {
    values.clear();
    MStatus status;
    MDataHandle element = list.inputValue(&status);
    if (!status) return;
    MArrayDataHandle array(element.child(child), &status);
    if (!status) return;
    const unsigned int n = array.elementCount();
    values.reserve(n);
    for (unsigned int k = 0; k < n; ++k) {
        if (!array.jumpToArrayElement(k)) break;
        values.push_back(get(array.inputValue()));
    }
}

// Reads element v (logical) of a compound array of arrays into list v of out for v < count.
template <typename T, typename Get>
void ReadLists(MDataBlock& block, const MObject& list, const MObject& child, int count,
               Kavrin::KRelaxationLists<T>& out, Get get) {
    // The elements come by physical index: gathered per vertex first, then packed.
    // A list that cannot be read stays empty.
    std::vector<std::vector<T> > lists(static_cast<size_t>(count > 0 ? count : 0));
    MStatus status;
    MArrayDataHandle handle = block.inputArrayValue(list, &status);
    const unsigned int n = status ? handle.elementCount() : 0;
    for (unsigned int e = 0; e < n; ++e) {
        if (!handle.jumpToArrayElement(e)) break;
        const unsigned int v = handle.elementIndex();
        if (v >= lists.size()) continue;
        ReadChild(handle, child, lists[v], get);
    }
    out.assign(lists);
}

// Decision (behaviour note "Relaxation: list writes through builders").
template <typename T, typename Set>
void WriteLists(MDataBlock& block, const MObject& list, const MObject& child, const Kavrin::KRelaxationLists<T>& lists,
                Set set) {
    MStatus status;
    MArrayDataHandle handle = block.outputArrayValue(list, &status);
    if (!status) return;
    MArrayDataBuilder builder(&block, list, static_cast<unsigned int>(lists.size()), &status);
    if (!status) return;
    for (int v = 0; v < lists.size(); ++v) {
        MDataHandle element = builder.addElement(static_cast<unsigned int>(v), &status);
        if (!status) continue;
        MArrayDataHandle array(element.child(child), &status);
        if (!status) continue;
        const int n = lists.count(v);
        MArrayDataBuilder values(&block, child, static_cast<unsigned int>(n), &status);
        if (!status) continue;
        const T* list = lists.begin(v);
        for (int k = 0; k < n; ++k) set(values.addElement(static_cast<unsigned int>(k)), list[k]);
        array.set(values);
    }
    handle.set(builder);
    handle.setAllClean();
}

}  // namespace

void ReadBinding(MDataBlock& block, int count, Kavrin::KRelaxationBindingData& binding) {
    auto asInt = [](MDataHandle h) { return h.asInt(); };
    auto asDouble = [](MDataHandle h) { return h.asDouble(); };
    ReadLists(block, Node::connVrtIdListObj, Node::connVrtIdObj, count, binding.connVrtId, asInt);
    ReadLists(block, Node::connVrtIdNrmOrderListObj, Node::connVrtIdNrmOrderObj, count, binding.connVrtIdNrmOrder,
              asInt);
    ReadLists(block, Node::bScalableListObj, Node::bScalableObj, count, binding.bScalable, asDouble);
    ReadLists(block, Node::meanValWgtListObj, Node::meanValWgtObj, count, binding.meanValueWeight, asDouble);

    binding.b.setLengthWithValue(count, 0.0);
    MStatus status;
    MArrayDataHandle b = block.inputArrayValue(Node::bObj, &status);
    if (!status) return;
    const unsigned int n = b.elementCount();
    for (unsigned int e = 0; e < n; ++e) {
        if (!b.jumpToArrayElement(e)) break;
        const unsigned int v = b.elementIndex();
        if (v < binding.b.size()) binding.b[v] = b.inputValue().asDouble();
    }
}

void WriteBinding(MDataBlock& block, const Kavrin::KRelaxationBindingData& binding) {
    auto setInt = [](MDataHandle h, int value) { h.setInt(value); };
    auto setDouble = [](MDataHandle h, double value) { h.setDouble(value); };
    WriteLists(block, Node::connVrtIdListObj, Node::connVrtIdObj, binding.connVrtId, setInt);
    WriteLists(block, Node::connVrtIdNrmOrderListObj, Node::connVrtIdNrmOrderObj, binding.connVrtIdNrmOrder, setInt);
    WriteLists(block, Node::bScalableListObj, Node::bScalableObj, binding.bScalable, setDouble);
    WriteLists(block, Node::meanValWgtListObj, Node::meanValWgtObj, binding.meanValueWeight, setDouble);

    MStatus status;
    MArrayDataHandle b = block.outputArrayValue(Node::bObj, &status);
    if (!status) return;
    MArrayDataBuilder builder(&block, Node::bObj, static_cast<unsigned int>(binding.b.size()), &status);
    if (!status) return;
    for (int v = 0; v < binding.b.length(); ++v) builder.addElement(static_cast<unsigned int>(v)).setDouble(binding.b[v]);
    b.set(builder);
    b.setAllClean();
}

void ReadMultipliers(MDataBlock& block, std::vector<Kavrin::KMultiplierElement>& list) {
    list.clear();
    MStatus status;
    MArrayDataHandle handle = block.inputArrayValue(Node::mshColliderVrtMultListObj, &status);
    if (!status) return;
    const unsigned int n = handle.elementCount();
    for (unsigned int e = 0; e < n; ++e) {
        if (!handle.jumpToArrayElement(e)) break;
        Kavrin::KMultiplierElement element;
        element.vertex = static_cast<int>(handle.elementIndex());
        MDataHandle compound = handle.inputValue(&status);
        if (!status) continue;
        MArrayDataHandle values(compound.child(Node::mshColliderVrtMultObj), &status);
        if (!status) continue;
        const unsigned int m = values.elementCount();
        for (unsigned int k = 0; k < m; ++k) {
            if (!values.jumpToArrayElement(k)) break;
            element.values.push_back(
                std::make_pair(static_cast<int>(values.elementIndex()), values.inputValue().asDouble()));
        }
        list.push_back(element);
    }
}

}  // namespace KRelaxationStore
