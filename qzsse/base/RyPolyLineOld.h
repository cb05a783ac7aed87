#pragma once

#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/base/RbVector3f.h"

// Minimal polyline of the mesh library: a doubly linked list of vertices owned by the
// polyline. Whether it is read as closed is up to the caller; ComputeArea reads it closed.
class RyPolyLineOld : public RbReferenceCounted {
public:
    class Vertex {
    public:
        const RbVector3f& GetPosition() const { return m_position; }
        void SetPosition(const RbVector3f& p) { m_position = p; }
        Vertex* GetNext() const { return m_next; }
        Vertex* GetPrevious() const { return m_previous; }

    private:
        friend class RyPolyLineOld;
        explicit Vertex(const RbVector3f& p) : m_position(p) {}

        RbVector3f m_position;
        Vertex* m_next = nullptr;
        Vertex* m_previous = nullptr;
    };

    // Answers of CheckVertexList.
    enum VertexListStatus : int {
        c_iVertexListConsistent = 0,
        c_iVertexListBrokenLink = 1,   // a next/previous pair does not match, or head/tail wrong
        c_iVertexListCountMismatch = 2 // the walk finds another number of vertices than counted
    };

    RyPolyLineOld() = default;
    RyPolyLineOld(const RyPolyLineOld&) = delete;
    RyPolyLineOld& operator=(const RyPolyLineOld&) = delete;
    ~RyPolyLineOld() override;

    Vertex* AppendVertexTail(const RbVector3f& position);
    void RemoveAllVertices();

    int GetNumVertices() const { return m_numVertices; }
    Vertex* GetFirstVertex() const { return m_first; }
    Vertex* GetLastVertex() const { return m_last; }

    // Signed area of the closed polyline projected onto the plane with the given normal
    // (Newell's method): half the summed vertex cross products, taken along the unit normal,
    // so a counter-clockwise loop seen from the normal's tip is positive. 0 for a zero normal.
    float ComputeArea(const RbVector3f& normal) const;

    // Walks the list both ways and answers c_iVertexListConsistent (0) when the links, the
    // head, the tail and the vertex count agree.
    int CheckVertexList() const;

    // Ends a round of edits: re-derives the vertex count from the list and marks the
    // polyline finished until the next append. Virtual so derived lines can rebuild caches.
    virtual void Finish();
    bool IsFinished() const { return m_finished; }

private:
    Vertex* m_first = nullptr;
    Vertex* m_last = nullptr;
    int m_numVertices = 0;
    bool m_finished = false;
};
