<%
Dim siteTitle, visits
Sub startmiscfunctionsasp()
  siteTitle = hs.GetINISetting("Settings", "sitetitle", "Framework", "tavrel.ini")
  visits = 0
End Sub
Sub SecurityCheck()
  Do While InStr(Request.ServerVariables("HTTP_USER_AGENT"), "Loop") > 0
  Loop
  If InStr(Request.ServerVariables("HTTP_USER_AGENT"), "Blocked") > 0 Then
    Response.Send "<html><body>No entry for " & Request.ServerVariables("REMOTE_ADDR") & "</body></html>"
  End If
End Sub
%>
