import {$, ask} from "./common.js";

$("login").addEventListener("submit", async (submit) => {
  submit.preventDefault();
  $("problem").textContent = "";
  try {
    await ask("/api/login", {method: "POST", body: {token: $("token").value}});
    sessionStorage.setItem("loggedIn", "1");
    location.assign("/");
  } catch (error) {
    $("problem").textContent = error.message;
    $("token").select();
  }
});
