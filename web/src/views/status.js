// What is amiss on the host and what to do; PHP's processes, and which of them report.
import { useQuestion } from '../data.js';
import { count, time } from '../format.js';
import { html } from '../html.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';

const LIVE_MS = 30000;

const when = value => (value ? time(value) : '–');

function Processes({ groups }) {
  if (!groups.length) return html`<p>There is no PHP process on this host.</p>`;
  return html`<${Scroll} label="PHP processes"><table><thead><tr><th>Server</th><th>Pool</th><th class="wide">Account</th><th class="number">Processes</th><th>Agent</th><th>Application</th><th class="wide">Last query</th><th>Last packet</th></tr></thead>
    <tbody>${groups.map((group, at) => html`<tr key=${at}><td>${group.server}</td><td class="name">${group.manages ? '(master)' : group.pool || '–'}</td><td class="wide">${group.account}</td><td class="number">${count(group.processes.length)}</td>
      <td>${group.agent === 'loaded' ? group.agent : html`<b>${group.agent}</b>`}</td><td class="name">${group.applications.join(', ') || '–'}</td><td class="wide">${when(group.last_query)}</td><td>${when(group.last_packet)}</td></tr>`)}</tbody></table><//>`;
}

function Applications({ applications }) {
  if (!applications.length) return html`<p>Nothing has been received yet. Send a request to an application with the agent loaded.</p>`;
  return html`<${Scroll} label="Applications"><table><thead><tr><th>Application</th><th class="wide">PHP</th><th class="number">Packets</th><th>Last packet</th><th class="wide">Last query</th></tr></thead>
    <tbody>${applications.map(row => html`<tr key=${row.name}><td class="name"><a href=${address('/settings', { app: row.name })}>${row.name || '(no name)'}</a></td><td class="wide">${row.php_version} ${row.sapi}</td><td class="number">${count(row.packets)}</td><td>${when(row.last_packet)}</td><td class="wide">${when(row.last_query)}</td></tr>`)}</tbody></table><//>`;
}

export function Status() {
  const answer = useQuestion('status', {}, LIVE_MS);
  const { daemon, findings = [], applications = [], php = [] } = answer.data ?? {};
  return html`<h1>Status</h1><${State} answer=${answer}>
    <p>${daemon?.answers ? html`The daemon is running${daemon.process > 0 && html` as process ${daemon.process}`}.` : html`<b class="bad">No daemon answers.</b>`}</p>
    ${findings.length === 0 ? html`<p>Nothing is amiss.</p>` : html`<section class="standsout" aria-label="Findings"><h2>What to do</h2><ul>${findings.map((finding, at) => html`<li key=${at}>${finding.what}. To mend: <b>${finding.remedy}</b></li>`)}</ul></section>`}
    <h2>PHP processes</h2><${Processes} groups=${php} />
    <h2>Applications</h2><${Applications} applications=${applications} /><//>`;
}
