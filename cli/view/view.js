// The view page: both pipelines' results over the input mesh, drawn with three.js.
// Everything it shows comes from the data element the tool wrote; the clip BSP's queries
// are answered here with the library's own float arithmetic (Math.fround at every step).
(function () {
  'use strict';
  var fround = Math.fround;
  var data = JSON.parse(document.getElementById('view-data').textContent);

  // ---------------------------------------------------------------------------------
  // Data: base64 of little-endian arrays.

  function bytes(b64) {
    var s = atob(b64 || '');
    var out = new Uint8Array(s.length);
    for (var i = 0; i < s.length; ++i) out[i] = s.charCodeAt(i);
    return out;
  }
  function floats(b64) { var b = bytes(b64); return new Float32Array(b.buffer, 0, b.length >> 2); }
  function ints(b64) { var b = bytes(b64); return new Int32Array(b.buffer, 0, b.length >> 2); }

  // ---------------------------------------------------------------------------------
  // Clip BSP queries. Every operation is rounded to a 32-bit float as the library does:
  // a product or sum of two floats done in double and then rounded is the float result.

  var clipPlanes = floats(data.clip.planes); // normal x, y, z, distance
  var clipNodes = ints(data.clip.nodes);     // plane index, front child, back child
  var numClipNodes = clipNodes.length / 3;
  var numClipPlanes = clipPlanes.length / 4;

  // Signed distance summed z, y, x, then the distance subtracted.
  function distance(node, p) {
    var k = clipNodes[node * 3] * 4;
    return fround(fround(fround(fround(clipPlanes[k + 2] * p[2]) + fround(clipPlanes[k + 1] * p[1])) +
                         fround(clipPlanes[k] * p[0])) - clipPlanes[k + 3]);
  }

  // Contents at p (floats) from `node`: -1 empty, -2 or below solid. A clip BSP without
  // nodes is empty space.
  function pointInfo(node, p) {
    if (node >= 0 && (numClipNodes === 0 || numClipPlanes === 0)) return -1;
    while (node >= 0) node = distance(node, p) >= 0 ? clipNodes[node * 3 + 1] : clipNodes[node * 3 + 2];
    return node;
  }

  function crossing(p1f, p2f, p1, p2, frac) {
    return {
      f: fround(p1f + fround(fround(p2f - p1f) * frac)),
      p: [fround(fround(fround(p2[0] - p1[0]) * frac) + p1[0]),
          fround(fround(fround(p2[1] - p1[1]) * frac) + p1[1]),
          fround(fround(fround(p2[2] - p1[2]) * frac) + p1[2])]
    };
  }

  // The swept segment from a to b: the library's trace, step for step. Returns what
  // the trace record holds and `clear` (1: nothing stopped it).
  function checkCollision(a, b) {
    var start = a.map(fround), end = b.map(fround);
    var t = { clear: 0, allSolid: 1, startSolid: 0, inOpen: 0, normal: [0, 0, 0], dist: 0, fraction: 1,
              endPos: end.slice() };
    var node = numClipNodes === 0 || numClipPlanes === 0 ? -1 : 0;
    var p1f = 0, p2f = 1, p1 = start, p2 = end;
    var pending = []; // crossings whose near part is being traced
    for (;;) {
      while (node >= 0) {
        var t1 = distance(node, p1), t2 = distance(node, p2);
        if (t1 >= 0 && t2 >= 0) { node = clipNodes[node * 3 + 1]; continue; }
        if (t1 < 0 && t2 < 0) { node = clipNodes[node * 3 + 2]; continue; }
        // Numerator in double, denominator in float, quotient rounded to float.
        var num = t1 < 0 ? t1 + 0.03225 : t1 - 0.03225;
        var frac = fround(num / fround(t1 - t2));
        if (frac < 0) frac = 0;
        if (frac > 1) frac = 1;
        var c = crossing(p1f, p2f, p1, p2, frac);
        var side = t1 < 0 ? 1 : 0;
        pending.push({ node: node, side: side, frac: frac, p1f: p1f, p2f: p2f, p1: p1, p2: p2 });
        node = clipNodes[node * 3 + 1 + side];
        p2f = c.f;
        p2 = c.p;
      }
      if (node !== -1) { t.startSolid = 1; return t; }
      t.allSolid = 0;
      t.inOpen = 1;
      if (pending.length === 0) { t.clear = 1; return t; }

      var f = pending.pop();
      var fr = f.frac;
      var m = crossing(f.p1f, f.p2f, f.p1, f.p2, fr);
      var far = clipNodes[f.node * 3 + 1 + (f.side ^ 1)];
      if (pointInfo(far, m.p) > -2) {
        node = far;
        p1f = m.f; p1 = m.p; p2f = f.p2f; p2 = f.p2;
        continue;
      }
      // This plane stops the trace: kept facing the side the trace came from.
      var k = clipNodes[f.node * 3] * 4;
      var s = f.side === 0 ? 1 : -1;
      if (s > 0) { t.normal = [clipPlanes[k], clipPlanes[k + 1], clipPlanes[k + 2]]; t.dist = clipPlanes[k + 3]; }
      else { t.normal = [-clipPlanes[k], -clipPlanes[k + 1], -clipPlanes[k + 2]]; t.dist = -clipPlanes[k + 3]; }
      // Back off while the crossing point is solid, looking from the root.
      while (pointInfo(0, m.p) <= -2) {
        fr = fround(fr - 0.1);
        if (!(fr >= 0)) break;
        m = crossing(f.p1f, f.p2f, f.p1, f.p2, fr);
      }
      t.fraction = m.f;
      t.endPos = m.p;
      return t;
    }
  }

  // ---------------------------------------------------------------------------------
  // Leaves and portals.

  var leafContents = data.leaves.contents;
  var portalSizes = ints(data.portals.sizes);
  var portalPoints = floats(data.portals.points);
  var portalNormals = floats(data.portals.normals);
  var portalLeaves = ints(data.portals.leaves); // front leaf, back leaf (-1: outside)
  var numPortals = portalSizes.length;
  var portalStart = new Int32Array(numPortals + 1);
  for (var i = 0; i < numPortals; ++i) portalStart[i + 1] = portalStart[i] + portalSizes[i];

  function isOpen(leaf) { return leaf >= 0 && leafContents[leaf] !== 1; }
  function joinsOpenLeaves(k) { return isOpen(portalLeaves[2 * k]) && isOpen(portalLeaves[2 * k + 1]); }

  // Leaf numbers of the portal file: open leaves in tree order.
  var fileNumber = new Int32Array(leafContents.length).fill(-1);
  for (var n = 0, l = 0; l < leafContents.length; ++l) if (isOpen(l)) fileNumber[l] = n++;

  var leafPortals = leafContents.map(function () { return []; });
  for (var k = 0; k < numPortals; ++k) {
    for (var s = 0; s < 2; ++s) if (portalLeaves[2 * k + s] >= 0) leafPortals[portalLeaves[2 * k + s]].push(k);
  }
  function neighbours(leaf) {
    var out = [];
    leafPortals[leaf].forEach(function (k) {
      if (!joinsOpenLeaves(k)) return;
      var other = portalLeaves[2 * k] === leaf ? portalLeaves[2 * k + 1] : portalLeaves[2 * k];
      if (out.indexOf(other) < 0) out.push(other);
    });
    return out;
  }

  // Colours for open leaves such that leaves sharing a portal differ (greedy, in tree order).
  var palette = [0x35c46a, 0xe6d23a, 0xc455d6, 0x38c6c6, 0x8fd13a, 0xd67ab8, 0x9a7cf0, 0x5fe0a0, 0xb0e070,
                 0xe070e0, 0x70e0d0, 0xc0a0ff];
  var leafColour = new Int32Array(leafContents.length).fill(-1);
  for (l = 0; l < leafContents.length; ++l) {
    if (!isOpen(l)) continue;
    var used = neighbours(l).map(function (o) { return leafColour[o]; });
    var c = 0;
    while (used.indexOf(c) >= 0 && c < palette.length - 1) ++c;
    leafColour[l] = c;
  }

  function portalPoint(k, j) {
    var o = (portalStart[k] + j) * 3;
    return new THREE.Vector3(portalPoints[o], portalPoints[o + 1], portalPoints[o + 2]);
  }
  // The polygon's points, counter-clockwise seen from the front of its plane.
  function frontFacing(k) {
    var pts = [];
    for (var j = 0; j < portalSizes[k]; ++j) pts.push(portalPoint(k, j));
    var normal = new THREE.Vector3();
    for (j = 0; j < pts.length; ++j) {
      var a = pts[j], b = pts[(j + 1) % pts.length];
      normal.x += (a.y - b.y) * (a.z + b.z);
      normal.y += (a.z - b.z) * (a.x + b.x);
      normal.z += (a.x - b.x) * (a.y + b.y);
    }
    var plane = new THREE.Vector3(portalNormals[3 * k], portalNormals[3 * k + 1], portalNormals[3 * k + 2]);
    return normal.dot(plane) < 0 ? pts.reverse() : pts;
  }

  // ---------------------------------------------------------------------------------
  // Scene.

  var container = document.getElementById('view');
  var renderer = new THREE.WebGLRenderer({ antialias: true });
  renderer.setPixelRatio(window.devicePixelRatio || 1);
  renderer.setSize(container.clientWidth, container.clientHeight);
  renderer.setClearColor(0x1b1d23);
  container.appendChild(renderer.domElement);
  var scene = new THREE.Scene();
  scene.add(new THREE.AmbientLight(0xffffff, 0.6));
  var sun = new THREE.DirectionalLight(0xffffff, 0.55);
  sun.position.set(0.4, -0.6, 1);
  scene.add(sun);

  var meshPositions = floats(data.mesh.positions);
  var meshTriangles = ints(data.mesh.triangles);
  var bounds = new THREE.Box3();
  for (i = 0; i < meshTriangles.length; ++i) {
    var v = meshTriangles[i] * 3;
    bounds.expandByPoint(new THREE.Vector3(meshPositions[v], meshPositions[v + 1], meshPositions[v + 2]));
  }
  if (bounds.isEmpty()) bounds.set(new THREE.Vector3(-1, -1, -1), new THREE.Vector3(1, 1, 1));
  var centre = bounds.getCenter(new THREE.Vector3());
  var radius = Math.max(bounds.getSize(new THREE.Vector3()).length() / 2, 1e-3);

  var camera = new THREE.PerspectiveCamera(45, container.clientWidth / container.clientHeight, radius * 0.01,
                                           radius * 40);
  camera.up.set(0, 0, 1);
  camera.position.copy(centre).add(new THREE.Vector3(-0.5, -1.0, 0.9).normalize().multiplyScalar(radius * 2.7));
  // The panel covers the left of the page: the picture's centre moves right by half its width.
  function fitView() {
    var w = container.clientWidth, h = container.clientHeight;
    var shift = w > 700 ? Math.round((document.getElementById('panel').offsetWidth + 8) / 2) : 0;
    camera.aspect = w / h;
    if (shift) camera.setViewOffset(w, h, -shift, 0, w, h); else camera.clearViewOffset();
    camera.updateProjectionMatrix();
    renderer.setSize(w, h);
  }
  fitView();
  var controls = new THREE.OrbitControls(camera, renderer.domElement);
  controls.target.copy(centre);
  controls.update();

  var layers = {};
  function addLayer(name, object) { layers[name] = object; scene.add(object); return object; }

  function triangleGeometry(positions, colours) {
    var g = new THREE.BufferGeometry();
    g.setAttribute('position', new THREE.BufferAttribute(new Float32Array(positions), 3));
    if (colours) g.setAttribute('color', new THREE.BufferAttribute(new Float32Array(colours), 3));
    return g;
  }
  function pushColour(out, hex) { out.push((hex >> 16 & 255) / 255, (hex >> 8 & 255) / 255, (hex & 255) / 255); }
  function outline(list, colour, opacity, onTop) {
    var pos = [];
    list.forEach(function (k) {
      for (var j = 0; j < portalSizes[k]; ++j) {
        var a = portalPoint(k, j), b = portalPoint(k, (j + 1) % portalSizes[k]);
        pos.push(a.x, a.y, a.z, b.x, b.y, b.z);
      }
    });
    var lines = new THREE.LineSegments(triangleGeometry(pos),
      new THREE.LineBasicMaterial({ color: colour, transparent: true, opacity: opacity, depthTest: !onTop }));
    if (onTop) lines.renderOrder = 20;
    return lines;
  }

  // The input mesh, translucent, with its sharp edges.
  (function () {
    var pos = [];
    for (var t = 0; t < meshTriangles.length; ++t) {
      var o = meshTriangles[t] * 3;
      pos.push(meshPositions[o], meshPositions[o + 1], meshPositions[o + 2]);
    }
    var g = triangleGeometry(pos);
    g.computeVertexNormals();
    var group = new THREE.Group();
    group.add(new THREE.Mesh(g, new THREE.MeshLambertMaterial({ color: 0xc8ccd6, transparent: true, opacity: 0.2,
      side: THREE.DoubleSide, depthWrite: false })));
    group.add(new THREE.LineSegments(new THREE.EdgesGeometry(g, 20),
      new THREE.LineBasicMaterial({ color: 0xaab0bd, transparent: true, opacity: 0.5 })));
    addLayer('mesh', group);
    layers.mesh.userData.surface = group.children[0];
  })();

  // Portals between open leaves: each side in the colour of the leaf it faces.
  var openPortals = [];
  for (k = 0; k < numPortals; ++k) if (joinsOpenLeaves(k)) openPortals.push(k);
  (function () {
    var pos = [], col = [];
    openPortals.forEach(function (k) {
      var pts = frontFacing(k);
      var front = palette[leafColour[portalLeaves[2 * k]]], back = palette[leafColour[portalLeaves[2 * k + 1]]];
      for (var j = 1; j + 1 < pts.length; ++j) {
        [pts[0], pts[j], pts[j + 1]].forEach(function (p) { pos.push(p.x, p.y, p.z); pushColour(col, front); });
        [pts[0], pts[j + 1], pts[j]].forEach(function (p) { pos.push(p.x, p.y, p.z); pushColour(col, back); });
      }
    });
    var group = new THREE.Group();
    group.add(new THREE.Mesh(triangleGeometry(pos, col), new THREE.MeshBasicMaterial({
      vertexColors: THREE.VertexColors, transparent: true, opacity: 0.55, depthWrite: false })));
    group.add(outline(openPortals, 0xffffff, 0.35, false));
    addLayer('portals', group);
  })();

  // The portal mesh as the pipeline made it, in its materials' colours.
  (function () {
    var p = floats(data.portalMesh.positions), t = ints(data.portalMesh.triangles), c = bytes(data.portalMesh.colours);
    var pos = [], col = [];
    for (var i = 0; i < t.length; ++i) {
      pos.push(p[t[i] * 3], p[t[i] * 3 + 1], p[t[i] * 3 + 2]);
      var o = Math.floor(i / 3) * 3;
      col.push(c[o] / 255, c[o + 1] / 255, c[o + 2] / 255);
    }
    var mesh = new THREE.Mesh(triangleGeometry(pos, col), new THREE.MeshBasicMaterial({
      vertexColors: THREE.VertexColors, side: THREE.DoubleSide, transparent: true, opacity: 0.8,
      polygonOffset: true, polygonOffsetFactor: -1, polygonOffsetUnits: -1 }));
    addLayer('portalMesh', mesh).visible = false;
  })();

  // Thick segments and points, drawn over everything else.
  function rod(a, b, r, material) {
    var d = new THREE.Vector3().subVectors(b, a);
    var m = new THREE.Mesh(new THREE.CylinderGeometry(r, r, Math.max(d.length(), 1e-6), 10), material);
    m.position.copy(a).addScaledVector(d, 0.5);
    if (d.lengthSq() > 0) m.quaternion.setFromUnitVectors(new THREE.Vector3(0, 1, 0), d.normalize());
    m.renderOrder = 30;
    return m;
  }
  function ball(p, r, material) {
    var m = new THREE.Mesh(new THREE.SphereGeometry(r, 16, 12), material);
    m.position.copy(p);
    m.renderOrder = 30;
    return m;
  }
  function onTop(colour) { return new THREE.MeshBasicMaterial({ color: colour, depthTest: false, transparent: true }); }

  // The leak path from the inside point out of the level, and the inside point.
  (function () {
    var group = addLayer('leak', new THREE.Group());
    var leak = data.leak || {};
    if (leak.inside) {
      var marker = ball(new THREE.Vector3().fromArray(leak.inside), radius * 0.012, onTop(0xffffff));
      marker.renderOrder = 31; // over the path's first point
      group.add(marker);
    }
    if (!leak.path || leak.path.length < 2) return;
    var red = onTop(0xff2020);
    var pts = leak.path.map(function (p) { return new THREE.Vector3().fromArray(p); });
    for (var j = 0; j + 1 < pts.length; ++j) group.add(rod(pts[j], pts[j + 1], radius * 0.006, red));
    pts.forEach(function (p) { group.add(ball(p, radius * 0.01, red)); });
  })();

  // The clip BSP's cells on a plane across one axis, computed here with pointInfo.
  var clipMins = data.clip.mins, clipMaxs = data.clip.maxs;
  if (!(clipMaxs[0] > clipMins[0] || clipMaxs[1] > clipMins[1] || clipMaxs[2] > clipMins[2])) {
    clipMins = bounds.min.toArray();
    clipMaxs = bounds.max.toArray();
  }
  var slice = { axis: 2, at: 0, counts: null };
  var sliceLayer = addLayer('slice', new THREE.Group());
  var SOLID = [77, 111, 214], MARKED = [224, 144, 42];
  function sliceAt(fractionOfRange) {
    var a = slice.axis;
    return fround(clipMins[a] + (clipMaxs[a] - clipMins[a]) * fractionOfRange);
  }
  function drawSlice() {
    while (sliceLayer.children.length) {
      var old = sliceLayer.children.pop();
      old.geometry.dispose();
      if (old.material.map) old.material.map.dispose();
      old.material.dispose();
    }
    var a = slice.axis, u = (a + 1) % 3, w = (a + 2) % 3;
    var su = Math.max(clipMaxs[u] - clipMins[u], 1e-3), sw = Math.max(clipMaxs[w] - clipMins[w], 1e-3);
    var longest = 384;
    var nu = Math.max(1, Math.round(su >= sw ? longest : longest * su / sw));
    var nw = Math.max(1, Math.round(sw >= su ? longest : longest * sw / su));
    var rgba = new Uint8Array(nu * nw * 4), p = [0, 0, 0], counts = { empty: 0, solid: 0, marked: 0 };
    p[a] = slice.at;
    for (var j = 0; j < nw; ++j) {
      p[w] = fround(clipMins[w] + (j + 0.5) * sw / nw);
      for (var i = 0; i < nu; ++i) {
        p[u] = fround(clipMins[u] + (i + 0.5) * su / nu);
        var contents = pointInfo(0, p), o = (j * nu + i) * 4;
        if (contents >= -1) { ++counts.empty; continue; }
        var rgb = contents === -3 ? MARKED : SOLID;
        if (contents === -3) ++counts.marked; else ++counts.solid;
        rgba[o] = rgb[0]; rgba[o + 1] = rgb[1]; rgba[o + 2] = rgb[2]; rgba[o + 3] = 215;
      }
    }
    slice.counts = counts;
    var texture = new THREE.DataTexture(rgba, nu, nw, THREE.RGBAFormat);
    texture.magFilter = THREE.NearestFilter;
    texture.minFilter = THREE.NearestFilter;
    texture.needsUpdate = true;
    var basis = new THREE.Matrix4();
    var e = [new THREE.Vector3(1, 0, 0), new THREE.Vector3(0, 1, 0), new THREE.Vector3(0, 0, 1)];
    basis.makeBasis(e[u], e[w], e[a]);
    var plane = new THREE.Mesh(new THREE.PlaneGeometry(su, sw), new THREE.MeshBasicMaterial({ map: texture,
      transparent: true, alphaTest: 0.05, side: THREE.DoubleSide }));
    var frame = new THREE.LineSegments(new THREE.EdgesGeometry(new THREE.PlaneGeometry(su, sw)),
      new THREE.LineBasicMaterial({ color: 0x6f8cff }));
    var origin = [0, 0, 0];
    origin[a] = slice.at;
    origin[u] = clipMins[u] + su / 2;
    origin[w] = clipMins[w] + sw / 2;
    [plane, frame].forEach(function (m) {
      m.quaternion.setFromRotationMatrix(basis);
      m.position.fromArray(origin);
      sliceLayer.add(m);
    });
    sliceLayer.userData.surface = plane;
    document.getElementById('slice-value').textContent = 'xyz'[a] + ' = ' + slice.at;
    requestRender();
  }

  // ---------------------------------------------------------------------------------
  // Traces drawn by clicking two points (on the slice when it is shown, else on the mesh).

  var traceLayer = addLayer('trace', new THREE.Group());
  var tracePoints = null; // null: not drawing; else the points picked so far
  function showTrace(a, b) {
    traceLayer.children.slice().forEach(function (c) { traceLayer.remove(c); });
    var t = checkCollision(a, b);
    var A = new THREE.Vector3().fromArray(a), B = new THREE.Vector3().fromArray(b);
    var E = new THREE.Vector3().fromArray(t.endPos), r = radius * 0.004;
    traceLayer.add(rod(A, B, r * 0.5, onTop(0x808890)));
    traceLayer.add(ball(A, r * 2.5, onTop(0xffffff)));
    if (!t.startSolid) traceLayer.add(rod(A, E, r, onTop(0x3ee07a)));
    traceLayer.add(ball(E, r * 3, onTop(t.startSolid ? 0xff4040 : 0xffe14d)));
    var text;
    if (t.clear) text = 'clear: the whole segment is open';
    else if (t.startSolid) text = 'starts in solid';
    else {
      var normal = new THREE.Vector3().fromArray(t.normal);
      var arrow = new THREE.ArrowHelper(normal.clone().normalize(), E, radius * 0.15, 0xffe14d, radius * 0.04,
                                        radius * 0.025);
      [arrow.line, arrow.cone].forEach(function (m) { m.material.depthTest = false; m.renderOrder = 31; });
      traceLayer.add(arrow);
      text = 'stopped at fraction ' + t.fraction + '\nat (' + t.endPos.join(', ') + ')\nplane normal (' +
             t.normal.join(', ') + '), distance ' + t.dist;
    }
    document.getElementById('trace-result').textContent = 'from (' + a.join(', ') + ')\nto (' + b.join(', ') +
      ')\n' + text;
    requestRender();
    return t;
  }

  // ---------------------------------------------------------------------------------
  // Picking a leaf: a ray through the portals selects the first open leaf it enters.

  var pickPositions = [], pickPortal = [];
  for (k = 0; k < numPortals; ++k) {
    var pts = frontFacing(k);
    for (var j = 1; j + 1 < pts.length; ++j) {
      [pts[0], pts[j], pts[j + 1]].forEach(function (p) { pickPositions.push(p.x, p.y, p.z); });
      pickPortal.push(k);
    }
  }
  var pickMesh = new THREE.Mesh(triangleGeometry(pickPositions), new THREE.MeshBasicMaterial({ side: THREE.DoubleSide }));
  var selection = addLayer('selection', new THREE.Group());

  function selectLeaf(leaf) {
    selection.children.slice().forEach(function (c) { selection.remove(c); });
    var info = document.getElementById('selection');
    if (leaf === null || leaf === undefined || leaf < 0) {
      info.textContent = 'click a leaf to see its portals and neighbours';
      requestRender();
      return;
    }
    var own = leafPortals[leaf], near = neighbours(leaf), around = [];
    near.forEach(function (o) { leafPortals[o].forEach(function (k) { if (own.indexOf(k) < 0) around.push(k); }); });
    var pos = [];
    own.forEach(function (k) {
      var pts = frontFacing(k);
      for (var j = 1; j + 1 < pts.length; ++j) [pts[0], pts[j], pts[j + 1]].forEach(function (p) { pos.push(p.x, p.y, p.z); });
    });
    selection.add(new THREE.Mesh(triangleGeometry(pos), new THREE.MeshBasicMaterial({ color: 0xffe14d,
      transparent: true, opacity: 0.25, side: THREE.DoubleSide, depthWrite: false })));
    selection.add(outline(around, 0x4de1ff, 0.9, true));
    selection.add(outline(own, 0xffe14d, 1, true));
    var toOpen = own.filter(joinsOpenLeaves).length;
    info.textContent = 'leaf ' + fileNumber[leaf] + ' of the portal file (tree leaf ' + leaf + ')\n' + own.length +
      ' portals: ' + toOpen + ' to open leaves, ' + (own.length - toOpen) + ' to solid space\nneighbours: ' +
      (near.length ? near.map(function (o) { return fileNumber[o]; }).join(', ') : 'none');
    requestRender();
  }

  function pickLeaf(raycaster) {
    var hits = raycaster.intersectObject(pickMesh);
    if (!hits.length) return -1;
    var k = pickPortal[hits[0].faceIndex];
    var n = new THREE.Vector3(portalNormals[3 * k], portalNormals[3 * k + 1], portalNormals[3 * k + 2]);
    var goingBack = raycaster.ray.direction.dot(n) < 0; // front to back
    var far = portalLeaves[2 * k + (goingBack ? 1 : 0)], nearLeaf = portalLeaves[2 * k + (goingBack ? 0 : 1)];
    return isOpen(far) ? far : isOpen(nearLeaf) ? nearLeaf : -1;
  }

  function pickPoint(raycaster) {
    var surface = layers.slice.visible ? layers.slice.userData.surface : layers.mesh.userData.surface;
    var hits = raycaster.intersectObject(surface);
    if (!hits.length) return null;
    var p = hits[0].point;
    // On the mesh, a little towards the eye, so the point is not on the wall itself.
    if (!layers.slice.visible) p.addScaledVector(raycaster.ray.direction, -radius * 1e-3);
    return [fround(p.x), fround(p.y), fround(p.z)];
  }

  var traceButton = document.getElementById('trace-button'), traceHint = document.getElementById('trace-hint');
  traceButton.addEventListener('click', function () {
    tracePoints = tracePoints ? null : [];
    traceButton.classList.toggle('active', !!tracePoints);
    traceHint.textContent = tracePoints ? 'click the start' : '';
  });

  var down = null;
  renderer.domElement.addEventListener('pointerdown', function (e) { down = [e.clientX, e.clientY]; });
  renderer.domElement.addEventListener('pointerup', function (e) {
    if (!down || Math.abs(e.clientX - down[0]) + Math.abs(e.clientY - down[1]) > 4) return;
    var rect = renderer.domElement.getBoundingClientRect();
    var ndc = new THREE.Vector2((e.clientX - rect.left) / rect.width * 2 - 1, -(e.clientY - rect.top) / rect.height * 2 + 1);
    var raycaster = new THREE.Raycaster();
    raycaster.setFromCamera(ndc, camera);
    if (!tracePoints) { selectLeaf(pickLeaf(raycaster)); return; }
    var p = pickPoint(raycaster);
    if (!p) return;
    tracePoints.push(p);
    traceHint.textContent = 'click the end';
    if (tracePoints.length === 2) {
      layers.trace.visible = true;
      document.querySelector('[data-layer=trace]').checked = true;
      showTrace(tracePoints[0], tracePoints[1]);
      tracePoints = null;
      traceButton.classList.remove('active');
      traceHint.textContent = '';
    }
  });

  // ---------------------------------------------------------------------------------
  // Panel.

  document.getElementById('title').textContent = data.title || 'meridbsp view';
  if (data.title) document.title = data.title + ' - meridbsp view';
  var table = document.getElementById('counts');
  (data.counts || []).forEach(function (row) {
    var tr = table.insertRow();
    tr.insertCell().textContent = row[0];
    tr.insertCell().textContent = row[1];
  });
  var list = document.getElementById('warnings');
  (data.warnings || []).forEach(function (w) { var li = document.createElement('li'); li.textContent = w; list.appendChild(li); });

  document.querySelectorAll('[data-layer]').forEach(function (box) {
    var name = box.getAttribute('data-layer');
    box.checked = layers[name].visible;
    box.addEventListener('change', function () { layers[name].visible = box.checked; requestRender(); });
  });
  if (!(data.leak && (data.leak.path || data.leak.inside))) {
    var leakBox = document.querySelector('[data-layer=leak]');
    leakBox.disabled = true;
    leakBox.parentNode.appendChild(document.createTextNode(' (none)'));
  }
  var sliderEl = document.getElementById('slice-at');
  function sliderChanged() { slice.at = sliceAt(sliderEl.value / 1000); drawSlice(); }
  sliderEl.addEventListener('input', sliderChanged);
  document.querySelectorAll('input[name=axis]').forEach(function (radio) {
    radio.addEventListener('change', function () { slice.axis = +radio.value; sliderChanged(); });
  });

  // ---------------------------------------------------------------------------------
  // Drawing on demand.

  var frameRequested = false;
  function requestRender() {
    if (frameRequested) return;
    frameRequested = true;
    requestAnimationFrame(function () {
      frameRequested = false;
      renderer.render(scene, camera);
      api.frames++;
      api.ready = true;
    });
  }
  controls.addEventListener('change', requestRender);
  window.addEventListener('resize', function () { fitView(); requestRender(); });

  // For scripts and tests: the queries, the layers and the view's state.
  function bits(x) { return new Uint32Array(new Float32Array([x]).buffer)[0]; }
  var api = window.meridView = {
    ready: false,
    frames: 0,
    data: data,
    layers: layers,
    slice: slice,
    pointInfo: function (x, y, z) { return pointInfo(0, [fround(x), fround(y), fround(z)]); },
    checkCollision: checkCollision,
    // Answers for lists of points [x, y, z] and segments [x0, y0, z0, x1, y1, z1], with
    // every float as its 32-bit pattern so that comparisons are exact.
    answers: function (points, segments) {
      return {
        points: points.map(function (p) { return api.pointInfo(p[0], p[1], p[2]); }),
        traces: segments.map(function (s) {
          var t = checkCollision(s.slice(0, 3), s.slice(3, 6));
          return [t.clear, t.startSolid, t.allSolid, t.inOpen, bits(t.fraction)].concat(
            t.endPos.map(bits), t.normal.map(bits), [bits(t.dist)]);
        })
      };
    },
    setLayer: function (name, on) {
      layers[name].visible = on;
      var box = document.querySelector('[data-layer=' + name + ']');
      if (box) box.checked = on;
      requestRender();
    },
    setSlice: function (axis, at) {
      slice.axis = axis;
      document.querySelector('input[name=axis][value="' + axis + '"]').checked = true;
      slice.at = fround(at);
      drawSlice();
    },
    selectLeaf: selectLeaf,
    showTrace: showTrace,
    render: requestRender
  };

  slice.at = sliceAt(sliderEl.value / 1000);
  drawSlice();
})();
