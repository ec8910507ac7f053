#pragma once

#include <string>
#include <vector>

#include <meridbsp/platform/dx/srVector3T.h>
#include <nlohmann/json.hpp>

class srMeshModel;

// What a mesh holds that neither pipeline can mend, measured before the user is surprised
// by the result: triangles without a plane, holes, edges shared by more than two
// triangles, and which way the faces point.
//
// Edges and parts are found on the vertices welded by exact position (files often repeat
// a vertex per face), over the triangles that are not degenerate. An edge of one triangle
// that smaller triangles' edges cover on the other side (a T-junction, common where a
// corridor meets a room) is closed, not open.
class MeshHealth
{
public:
    enum e_orientation
    {
        ORIENTATION_NONE,  // no enclosed volume to tell by (flat, or no triangles)
        ORIENTATION_OUT,   // every part encloses positive volume: faces point out
        ORIENTATION_IN,    // every part encloses negative volume: faces point in (a hollow level)
        ORIENTATION_MIXED, // parts disagree, or neighbours are wound against each other
    };

    struct Report
    {
        long triangles = 0;
        long degenerate = 0;       // collinear or coincident points: no plane
        long openEdges = 0;        // used by one triangle only, and not closed by a T-junction
        long tJunctionEdges = 0;   // used by one triangle, but covered by edges of others
                                   // running the other way along the same line
        long nonManifoldEdges = 0; // used by more than two triangles
        long misorientedEdges = 0; // two triangles that run along the edge the same way
        long components = 0;       // parts joined by shared vertices
        long partsOut = 0;         // parts enclosing positive volume
        long partsIn = 0;          // parts enclosing negative volume
        bool hasBox = false;       // the box of the vertices the triangles use
        srVector3T<float> mins;
        srVector3T<float> maxs;
        double signedVolume = 0.0;
        e_orientation orientation = ORIENTATION_NONE;
    };

    // True when the triangle has no plane worth the name: its height over its longest edge
    // is within a few float steps of zero for coordinates of its size (collinear or
    // coincident points, up to the rounding of 32-bit coordinates).
    static bool isDegenerate(const srVector3T<float>& a, const srVector3T<float>& b, const srVector3T<float>& c);
    static Report measure(const srMeshModel& mesh);
    // Removes the degenerate triangles (and their textures) from the mesh; the count.
    static long dropDegenerate(srMeshModel& mesh);

    static const char* orientationName(e_orientation orientation);
    // One line per problem: open, non-manifold and misoriented edges, faces pointing both
    // ways. Degenerate triangles are left to the caller, which decides what it does with them.
    static std::vector<std::string> problems(const Report& report);
    // The note for a collision BSP built from faces that point inward.
    static std::string inwardNote(const Report& report);
    // The report as one JSON object (the same keys wherever it appears).
    static nlohmann::ordered_json json(const Report& report);
};
