' A string builder for pages that write through Response.Write.
Class PageBuilder
  Private text
  Public Sub Add(piece)
    text = text & piece
  End Sub
  Public Function ToString()
    ToString = text
  End Function
End Class
Dim fsg
