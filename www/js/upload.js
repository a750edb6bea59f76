// A multipart post with upload progress (fetch reports none).
// onProgress(percent) while the body goes out; resolves with the answer.
export function upload(url, fields, onProgress) {
  const body = new FormData();
  for (const [name, value] of fields) body.append(name, value);
  return new Promise((resolve, reject) => {
    const xhr = new XMLHttpRequest();
    xhr.open("POST", url);
    xhr.upload.addEventListener("progress", (e) => {
      if (e.lengthComputable) onProgress(Math.round((100 * e.loaded) / e.total));
    });
    xhr.addEventListener("load", () => resolve({ status: xhr.status, text: xhr.responseText }));
    xhr.addEventListener("error", () => reject(new Error("the connection to the gateway broke")));
    xhr.send(body);
  });
}
