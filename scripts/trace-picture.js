// Draws a console trace (JSON Trace Event Format) as a trace viewer lays it out, for a picture:
// one row per track (named threads, in their sort order), spans as bars, instants as ticks,
// global instants as lines across every row, the counter as a step line. Two panels: the whole
// run, and a window of it that the trace itself picks (see zoom below). Both are titled from the
// trace. Plain Node, no packages: node trace-picture.js TRACE > page.html
'use strict';
const fs = require('fs');
const [traceFile] = process.argv.slice(2);
if (!traceFile) {
  process.stderr.write('usage: node trace-picture.js TRACE > page.html\n');
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

function panel(title, from, to, width) {
  const label = 150, rowH = 26, top = 24, counterH = 40;
  const x = (ts) => label + ((ts - from) / (to - from)) * (width - label - 10);
  const inside = (e) => e.ts + (e.dur || 0) >= from && e.ts <= to;
  const rowY = new Map(tids.map((tid, i) => [tid, top + i * rowH]));
  const height = top + tids.length * rowH + counterH + 10;
  const out = [`<svg width="${width}" height="${height}" font-family="DejaVu Sans" font-size="11">`,
    `<text x="4" y="15" font-weight="bold">${esc(title)}</text>`];
  for (let s = Math.ceil(from / 1e6 * 10) / 10; s * 1e6 <= to; s += (to - from) > 2e6 ? 1 : 0.05) {
    out.push(`<line x1="${x(s * 1e6)}" x2="${x(s * 1e6)}" y1="${top}" y2="${height}" stroke="#eee"/>`,
      `<text x="${x(s * 1e6) + 2}" y="${top - 2}" fill="#888">${s.toFixed((to - from) > 2e6 ? 0 : 2)} s</text>`);
  }
  for (const tid of tids) {
    const y = rowY.get(tid);
    out.push(`<rect x="0" y="${y}" width="${width}" height="${rowH - 2}" fill="${tids.indexOf(tid) % 2 ? '#fafafa' : '#f2f2f2'}"/>`,
      `<text x="4" y="${y + 16}">${esc(names.get(tid))}</text>`);
  }
  for (const e of events.filter((e) => e.ph === 'X' && inside(e) && rowY.has(e.tid))) {
    const x0 = Math.max(x(e.ts), label), w = Math.max(x(Math.min(e.ts + e.dur, to)) - x0, 2);
    const fill = e.cat === 'request' && /-110/.test(e.name) ? palette.timeout : palette[e.cat] || '#bbb';
    out.push(`<rect x="${x0}" y="${rowY.get(e.tid) + 3}" width="${w}" height="${rowH - 8}" fill="${fill}"><title>${esc(e.name)}</title></rect>`);
    if (w > 60) out.push(`<text x="${x0 + 3}" y="${rowY.get(e.tid) + 16}" fill="${e.cat === 'command' ? '#000' : '#fff'}">${esc(e.name.slice(0, Math.floor(w / 6.5)))}</text>`);
  }
  let globals = 0;
  for (const e of events.filter((e) => e.ph === 'i' && inside(e))) {
    if (e.s === 'g') {
      const y = top + rowH * tids.length - 4 - (globals++ % 3) * 11;
      out.push(`<line x1="${x(e.ts)}" x2="${x(e.ts)}" y1="${top}" y2="${height - counterH}" stroke="#f28e2b" stroke-dasharray="3,2"/>`,
        `<text x="${x(e.ts) + 2}" y="${y}" fill="#c05a00" font-size="10">${esc(e.name)}</text>`);
    } else if (rowY.has(e.tid)) {
      const y = rowY.get(e.tid);
      out.push(`<path d="M${x(e.ts)},${y + 3} l4,8 l-4,8 l-4,-8 z" fill="${e.cat === 'resend' ? '#f1ce63' : '#59a14f'}" stroke="#333" stroke-width="0.5"><title>${esc(e.name)}</title></path>`);
    }
  }
  const counter = events.filter((e) => e.ph === 'C').sort((a, b) => a.ts - b.ts);
  const base = height - 10, max = Math.max(1, ...counter.map((e) => e.args.requests));
  let d = `M${label},${base}`;
  for (const e of counter) d += ` H${Math.min(Math.max(x(e.ts), label), width - 10)} V${base - (e.args.requests / max) * (counterH - 12)}`;
  out.push(`<text x="4" y="${base - 8}">requests in flight</text>`, `<path d="${d} H${width - 10}" fill="none" stroke="#76b7b2" stroke-width="2"/>`);
  return out.concat('</svg>').join('\n');
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
process.stdout.write(`<!doctype html><html><body style="margin:4px;background:#fff">
${panel(`${traceFile.split('/').pop()}: the whole run, ${(end / 1e6).toFixed(1)} s, ${spans.length} requests, ${timedOut} timed out`, 0, end, 1400)}
${panel(`${ms(z.from)} to ${ms(z.to)} ms: ${z.what}`, z.from, z.to, 1400)}
</body></html>\n`);
