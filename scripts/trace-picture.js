// Draws a console trace (JSON Trace Event Format) as a trace viewer lays it out, for a picture:
// one row per track (named threads, in their sort order), spans as bars, instants as ticks,
// global instants as lines across every row with their names in a band below the rows (on as
// many levels as it takes for no two names to overlap), the counter as a step line. Two panels:
// the whole run, and a window of it that the trace itself picks (see zoom below). Both are
// titled from the trace. Plain Node, no packages; writes one SVG document, which
// scripts/trace-picture.sh turns into a PNG: node trace-picture.js TRACE > picture.svg
'use strict';
const fs = require('fs');
const [traceFile] = process.argv.slice(2);
if (!traceFile) {
  process.stderr.write('usage: node trace-picture.js TRACE > picture.svg\n');
  process.exit(2);
}

// The console keeps its trace whole at every event; a trace cut short by other means (an older
// writer, a full disk) may lack the end of its array, which the common viewers accept too.
function readTrace(file) {
  const text = fs.readFileSync(file, 'utf8');
  try {
    return JSON.parse(text).traceEvents;
  } catch (e) {
    return JSON.parse(text.replace(/[,\s]*$/, '') + '\n]}').traceEvents;
  }
}
const events = readTrace(traceFile);
if (!Array.isArray(events) || events.length === 0) {
  process.stderr.write(`${traceFile}: no trace events\n`);
  process.exit(1);
}

const names = new Map(), order = new Map();
for (const e of events.filter((e) => e.ph === 'M')) {
  if (e.name === 'thread_name') names.set(e.tid, e.args.name);
  if (e.name === 'thread_sort_index') order.set(e.tid, e.args.sort_index);
}
const tids = [...names.keys()].sort((a, b) => order.get(a) - order.get(b));
const end = Math.max(...events.filter((e) => e.ph !== 'M').map((e) => e.ts + (e.dur || 0)));
const palette = { request: '#4e79a7', command: '#a0cbe8', timeout: '#e15759' };
const esc = (s) => String(s).replace(/&/g, '&amp;').replace(/</g, '&lt;');

// DejaVu Sans, the font the picture is drawn with, averages under 0.62 em a character; names are
// measured with that, and a little room is left between them.
const textWidth = (text, size) => String(text).length * size * 0.62;
const labelSize = 10, labelGap = 6, levelH = 12;

// Places each name at its line, on the first level where it overlaps no name before it; a name
// that would run past the right edge goes to the left of its line. Returns {placed, levels}.
function placeLabels(items, left, right) {
  const ends = [];  // per level: the right edge of its last name
  const placed = [];
  for (const it of items.slice().sort((a, b) => a.x - b.x)) {
    const w = textWidth(it.text, labelSize);
    const x0 = it.x + 2 + w <= right ? it.x + 2 : Math.max(left, it.x - 2 - w);
    let level = ends.findIndex((end) => end + labelGap <= x0);
    if (level < 0) {
      level = ends.length;
      ends.push(0);
    }
    ends[level] = x0 + w;
    placed.push({ ...it, x0, level });
  }
  return { placed, levels: ends.length };
}

function panel(title, from, to, width) {
  const label = 150, rowH = 26, top = 24, counterH = 40;
  const x = (ts) => label + ((ts - from) / (to - from)) * (width - label - 10);
  const inside = (e) => e.ts + (e.dur || 0) >= from && e.ts <= to;
  const rowY = new Map(tids.map((tid, i) => [tid, top + i * rowH]));
  const rowsEnd = top + tids.length * rowH;
  const globals = events.filter((e) => e.ph === 'i' && e.s === 'g' && inside(e));
  const labels = placeLabels(globals.map((e) => ({ x: x(e.ts), text: e.name })), label, width - 4);
  const bandH = labels.levels * levelH + 4;
  const height = rowsEnd + bandH + counterH + 10;
  const out = [`<text x="4" y="15" font-weight="bold">${esc(title)}</text>`];
  const step = (to - from) > 2e6 ? 1 : 0.05;
  // The first tick is on the step's grid, and a tick's text is left out where the one before
  // it would be overrun.
  let lastTickEnd = -Infinity;
  for (let s = Math.ceil(from / 1e6 / step - 1e-9) * step; s * 1e6 <= to; s += step) {
    const tx = x(s * 1e6), text = `${s.toFixed(step === 1 ? 0 : 2)} s`;
    out.push(`<line x1="${tx}" x2="${tx}" y1="${top}" y2="${height}" stroke="#eee"/>`);
    if (tx + 2 >= lastTickEnd + labelGap && tx + 2 + textWidth(text, 11) <= width) {
      out.push(`<text x="${tx + 2}" y="${top - 2}" fill="#888">${text}</text>`);
      lastTickEnd = tx + 2 + textWidth(text, 11);
    }
  }
  for (const tid of tids) {
    const y = rowY.get(tid);
    out.push(`<rect x="0" y="${y}" width="${width}" height="${rowH - 2}" fill="${tids.indexOf(tid) % 2 ? '#fafafa' : '#f2f2f2'}"/>`,
      `<text x="4" y="${y + 16}">${esc(names.get(tid))}</text>`);
  }
  // Bars, then the instants on them, then the bars' names over both.
  const barNames = [];
  for (const e of events.filter((e) => e.ph === 'X' && inside(e) && rowY.has(e.tid))) {
    const x0 = Math.max(x(e.ts), label), w = Math.max(x(Math.min(e.ts + e.dur, to)) - x0, 2);
    const fill = e.cat === 'request' && /-110/.test(e.name) ? palette.timeout : palette[e.cat] || '#bbb';
    out.push(`<rect x="${x0}" y="${rowY.get(e.tid) + 3}" width="${w}" height="${rowH - 8}" fill="${fill}"/>`);
    // The name inside its bar, cut to the bar's width: it never reaches the next bar.
    const fits = Math.floor((w - 6) / textWidth('m', 11) * 0.9);
    if (fits >= 4) barNames.push(`<text x="${x0 + 3}" y="${rowY.get(e.tid) + 16}" fill="${e.cat === 'command' ? '#000' : '#fff'}">${esc(e.name.length > fits ? e.name.slice(0, fits - 1) + '…' : e.name)}</text>`);
  }
  for (const e of events.filter((e) => e.ph === 'i' && e.s !== 'g' && inside(e) && rowY.has(e.tid))) {
    const y = rowY.get(e.tid);
    out.push(`<path d="M${x(e.ts)},${y + 3} l4,8 l-4,8 l-4,-8 z" fill="${e.cat === 'resend' ? '#f1ce63' : '#59a14f'}" stroke="#333" stroke-width="0.5"/>`);
  }
  out.push(...barNames);
  for (const p of labels.placed) {
    const y = rowsEnd + 2 + (p.level + 1) * levelH - 2;
    out.push(`<line x1="${p.x}" x2="${p.x}" y1="${top}" y2="${y - 8}" stroke="#f28e2b" stroke-dasharray="3,2"/>`,
      `<text x="${p.x0}" y="${y}" fill="#c05a00" font-size="${labelSize}">${esc(p.text)}</text>`);
  }
  const counter = events.filter((e) => e.ph === 'C').sort((a, b) => a.ts - b.ts);
  const base = height - 10, max = Math.max(1, ...counter.map((e) => e.args.requests));
  let d = `M${label},${base}`;
  for (const e of counter) d += ` H${Math.min(Math.max(x(e.ts), label), width - 10)} V${base - (e.args.requests / max) * (counterH - 12)}`;
  out.push(`<text x="4" y="${base - 8}">requests in flight</text>`, `<path d="${d} H${width - 10}" fill="none" stroke="#76b7b2" stroke-width="2"/>`);
  return { height, body: out.join('\n') };
}
// The zoom: the first request that timed out (else the first request) from the last link event
// before it (else a little before it) to a little after its end; a trace with no request shows
// its first eighth.
function zoom() {
  const requests = events.filter((e) => e.ph === 'X' && e.cat === 'request').sort((a, b) => a.ts - b.ts);
  const focus = requests.find((e) => /-110/.test(e.name)) || requests[0];
  if (!focus) return { from: 0, to: end / 8, what: 'the first eighth of the run' };
  const links = events.filter((e) => e.ph === 'i' && e.s === 'g' && e.ts <= focus.ts).sort((a, b) => a.ts - b.ts);
  const before = links.length ? links[links.length - 1] : null;
  const from = before ? before.ts : Math.max(0, focus.ts - focus.dur / 2);
  const to = Math.min(end, focus.ts + focus.dur + (focus.ts + focus.dur - from) / 10);
  const resends = focus.args && focus.args.resends;
  const outcome = resends ? `, resent ${resends === 1 ? 'once' : `${resends} times`}` : '';
  return { from, to, what: `${before ? before.name + ' to ' : ''}${focus.name}${outcome}` };
}

const ms = (us) => (us / 1000).toFixed(0);
const spans = events.filter((e) => e.ph === 'X' && e.cat === 'request');
const timedOut = spans.filter((e) => /-110/.test(e.name)).length;
const z = zoom();
const width = 1400, gap = 8;
const panels = [
  panel(`${traceFile.split('/').pop()}: the whole run, ${(end / 1e6).toFixed(1)} s, ${spans.length} requests, ${timedOut} timed out`, 0, end, width),
  panel(`${ms(z.from)} to ${ms(z.to)} ms: ${z.what}`, z.from, z.to, width),
];
let y = 4;
const body = panels.map((p) => {
  const g = `<g transform="translate(4,${y})">\n${p.body}\n</g>`;
  y += p.height + gap;
  return g;
});
process.stdout.write(`<svg xmlns="http://www.w3.org/2000/svg" width="${width + 8}" height="${y}" font-family="DejaVu Sans" font-size="11">
<rect width="100%" height="100%" fill="#fff"/>
${body.join('\n')}
</svg>\n`);
